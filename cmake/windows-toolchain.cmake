# 64-bit Windows with mingw-w64. CTest and add_custom_command run the built programs through tools/wine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(mingw x86_64-w64-mingw32)
# Only the posix thread model has <mutex> and <thread>. The compiler without a suffix may be either model.
set(CMAKE_C_COMPILER ${mingw}-gcc-posix)
set(CMAKE_CXX_COMPILER ${mingw}-g++-posix)
set(CMAKE_RC_COMPILER ${mingw}-windres)
cmake_path(SET CMAKE_CROSSCOMPILING_EMULATOR NORMALIZE "${CMAKE_CURRENT_LIST_DIR}/../tools/wine")

# Libraries and headers are the target's; programs that the build runs are this machine's.
set(CMAKE_FIND_ROOT_PATH /usr/${mingw})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
