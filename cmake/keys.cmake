# Key material of the secret scrambling. A deployment supplies its own values
# (-DNV_SECRET_KEY=... etc.); existing 2.0 secrets only read back with the values
# that wrote them. Hex words, little-endian as the cipher takes them.
set(NV_SECRET_KEY  "0x6E2F1C37;0xA4D9051B;0x3C88E6F0;0x9127B54D" CACHE STRING
    "Secret scrambling key: four 32-bit words, separated by ';'")
set(NV_SECRET_MASKS "0x5A17C3E9;0x0F3B96D2;0xC4E1287A;0x71D05BB6" CACHE STRING
    "Masks XORed into the secret scrambling key words at run time, four 32-bit words")
set(NV_SECRET_IV   "0x2B7E1516;0x9F4C3A08" CACHE STRING
    "Initial register of the secret scrambling: two 32-bit words")

function(nv_words_to_list var value count)
    list(LENGTH value n)
    if(NOT n EQUAL count)
        message(FATAL_ERROR "${var} needs ${count} words separated by ';', got '${value}'")
    endif()
    foreach(w IN LISTS value)
        if(NOT w MATCHES "^0[xX][0-9a-fA-F]+$")
            message(FATAL_ERROR "${var}: '${w}' is not a hex word (0x...)")
        endif()
    endforeach()
    string(REPLACE ";" "u, " text "${value}")
    set(${var}_INIT "${text}u" PARENT_SCOPE)
endfunction()

nv_words_to_list(NV_SECRET_KEY "${NV_SECRET_KEY}" 4)
nv_words_to_list(NV_SECRET_MASKS "${NV_SECRET_MASKS}" 4)
nv_words_to_list(NV_SECRET_IV "${NV_SECRET_IV}" 2)

set(NV_GENERATED_DIR ${CMAKE_BINARY_DIR}/generated)
configure_file(${CMAKE_SOURCE_DIR}/cmake/secret_keys.h.in ${NV_GENERATED_DIR}/secret_keys.h @ONLY)
