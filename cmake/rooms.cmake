# A room is one source folder and one target. A room can include only the rooms that it links to: the include
# folder of each room holds a symbolic link to that room and nothing else.

add_library(project_options INTERFACE)
target_compile_features(project_options INTERFACE cxx_std_20)
# Without fused multiply-adds, all compilers give the same bits.
target_compile_options(project_options INTERFACE
  -ffp-contract=off -Wall -Wextra -Wpedantic -Werror -Wconversion -Wshadow -Wold-style-cast -Wcast-align
  -Wnull-dereference -Wimplicit-fallthrough)
# A unity build compiles each room as one source, which takes a third of the time.
if(CMAKE_UNITY_BUILD)
  set(CMAKE_UNITY_BUILD_BATCH_SIZE 0)
  # GCC takes the included sources for headers and warns of their anonymous namespaces.
  target_compile_options(project_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-subobject-linkage>)
endif()
if(VSTABILIZE_SANITIZE)
  target_compile_options(project_options INTERFACE -fsanitize=${VSTABILIZE_SANITIZE} -fno-sanitize-recover=all
                                                   -fno-omit-frame-pointer)
  target_link_options(project_options INTERFACE -fsanitize=${VSTABILIZE_SANITIZE})
  if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    # libFuzzer needs code that reports which branches run. Only GCC's warnings are errors.
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

# add_avx2_loops(TARGET SOURCES...): on x86-64, adds sources that are compiled for AVX2. All other sources run on any
# processor.
function(add_avx2_loops target)
  if(NOT CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    return()
  endif()
  target_sources(${target} PRIVATE ${ARGN})
  set_property(SOURCE ${ARGN} PROPERTY COMPILE_OPTIONS -mavx2)
  if(WIN32)
    # Windows aligns the stack to 16 bytes only, but GCC stores 32-byte registers there with aligned moves.
    set_property(SOURCE ${ARGN} APPEND PROPERTY COMPILE_OPTIONS -Wa,-muse-unaligned-vector-move)
  endif()
endfunction()
