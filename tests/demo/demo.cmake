# CTest glue of scripts/demo: the demo runs inside the test run with a few users,
# on the build tree as it stands, in a Wine prefix and wineserver of its own (so the
# test run's prefix and server are left alone), and its summary is checked.
get_filename_component(NV_DEMO_BUILD_ROOT ${CMAKE_BINARY_DIR} DIRECTORY)
add_test(NAME demo.SmallDatabaseBecomes30WithEveryUserAccountedFor
    COMMAND ${CMAKE_COMMAND}
        -DNV_ROOT=${CMAKE_SOURCE_DIR}
        -DNV_BUILD_DIR=${NV_DEMO_BUILD_ROOT}
        -DNV_DEMO_DIR=${CMAKE_BINARY_DIR}/demo-test
        -DNV_DEMO_USERS=6
        -DNV_DEMO_DOMAINS=2
        -P ${CMAKE_CURRENT_LIST_DIR}/demo_check.cmake)
set_tests_properties(demo.SmallDatabaseBecomes30WithEveryUserAccountedFor PROPERTIES
    ${NV_WINE_TEST_PROPERTIES} TIMEOUT 300 LABELS demo COST 20)

# What the demo refuses before it builds or writes anything (no Wine involved).
add_test(NAME demo.RefusesArgumentsAndSettingsThatAreNoWholeNumbers
    COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/demo_refusals.sh)
set_tests_properties(demo.RefusesArgumentsAndSettingsThatAreNoWholeNumbers PROPERTIES LABELS demo TIMEOUT 60)
