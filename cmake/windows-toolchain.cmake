# 64-bit Windows with mingw-w64. Programs of the build run through tools/wine, those of CTest and of
# add_custom_command alike.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(mingw x86_64-w64-mingw32)
# Of the two thread models only this one has <mutex> and <thread>; the plain name can be either.
set(CMAKE_C_COMPILER ${mingw}-gcc-posix)
set(CMAKE_CXX_COMPILER ${mingw}-g++-posix)
set(CMAKE_RC_COMPILER ${mingw}-windres)
cmake_path(SET CMAKE_CROSSCOMPILING_EMULATOR NORMALIZE "${CMAKE_CURRENT_LIST_DIR}/../tools/wine")

# Libraries and headers of this machine are of no use there; programs are.
set(CMAKE_FIND_ROOT_PATH /usr/${mingw})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
