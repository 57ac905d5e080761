# Cross-build for 64-bit Windows with MinGW-w64 (posix thread model: std::thread,
# std::mutex and googletest need it).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(NV_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER   ${NV_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${NV_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER  ${NV_MINGW_PREFIX}-windres)
set(CMAKE_OBJCOPY      ${NV_MINGW_PREFIX}-objcopy)
set(CMAKE_STRIP        ${NV_MINGW_PREFIX}-strip)
set(CMAKE_OBJDUMP      ${NV_MINGW_PREFIX}-objdump)

set(CMAKE_FIND_ROOT_PATH /usr/${NV_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# Wine has no libstdc++-6.dll or libwinpthread-1.dll: link the runtime statically.
set(CMAKE_EXE_LINKER_FLAGS_INIT    "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")
