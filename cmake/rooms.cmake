# A room is one source folder and one target. What it may include is what it links to: each room publishes
# its headers through a folder that holds a link to that room alone, so "kernel/frame.h" is found only by
# targets that name the kernel as a dependency.

add_library(project_options INTERFACE)
target_compile_features(project_options INTERFACE cxx_std_20)
# The same bits on every compiler: no fused multiply-add behind the code's back.
target_compile_options(project_options INTERFACE
  -ffp-contract=off -Wall -Wextra -Wpedantic -Werror -Wconversion -Wshadow -Wold-style-cast -Wcast-align
  -Wnull-dereference -Wimplicit-fallthrough)
# A room may be compiled as one source, which takes a third of the time.
if(CMAKE_UNITY_BUILD)
  set(CMAKE_UNITY_BUILD_BATCH_SIZE 0)
  # Sources keep names to themselves there too.
  target_compile_options(project_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endif()
if(VSTABILIZE_SANITIZE)
  target_compile_options(project_options INTERFACE -fsanitize=${VSTABILIZE_SANITIZE} -fno-sanitize-recover=all
                                                   -fno-omit-frame-pointer)
  target_link_options(project_options INTERFACE -fsanitize=${VSTABILIZE_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    # libFuzzer watches which code its inputs reach. The warnings that count are GCC's.
    target_compile_options(project_options INTERFACE -fsanitize=fuzzer-no-link -Wno-error)
  endif()
endif()

function(publish_room target folder)
  set(published "${CMAKE_BINARY_DIR}/rooms/${target}")
  get_filename_component(parent "${published}/${folder}" DIRECTORY)
  file(MAKE_DIRECTORY "${parent}")
  file(CREATE_LINK "${CMAKE_SOURCE_DIR}/${folder}" "${published}/${folder}" SYMBOLIC)
  target_include_directories(${target} PUBLIC "${published}")
endfunction()

# add_room(NAME SOURCES... [LINKS targets...])
function(add_room name)
  cmake_parse_arguments(ROOM "" "" "SOURCES;LINKS" ${ARGN})
  add_library(${name} STATIC ${ROOM_SOURCES})
  publish_room(${name} ${name})
  target_link_libraries(${name} PUBLIC ${ROOM_LINKS} PRIVATE project_options)
endfunction()

# Adds sources that are compiled for AVX2, where the target's processor may have it. Only loops know wider instructions;
# everything else runs on any processor.
function(add_avx2_loops target)
  if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    return()
  endif()
  target_sources(${target} PRIVATE ${ARGN})
  set_property(SOURCE ${ARGN} PROPERTY COMPILE_OPTIONS -mavx2)
  if(WIN32)
    # The stack is aligned to 16 bytes there, which the compiler forgets when it keeps wide registers on it.
    set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS -Wa,-muse-unaligned-vector-move)
  endif()
endfunction()
