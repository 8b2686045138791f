# add_manual(TARGET): makes and installs a program's manual page from its --help and --version.
find_program(HELP2MAN help2man)
function(add_manual target)
  if(NOT HELP2MAN OR CMAKE_CROSSCOMPILING)
    return()
  endif()
  set(page "${CMAKE_CURRENT_BINARY_DIR}/${target}.1")
  add_custom_command(OUTPUT "${page}"
    COMMAND "${HELP2MAN}" --no-info --no-discard-stderr --name "takes the shake out of video" --output "${page}"
            "$<TARGET_FILE:${target}>"
    DEPENDS ${target} VERBATIM)
  add_custom_target(${target}_manual ALL DEPENDS "${page}")
  install(FILES "${page}" DESTINATION share/man/man1)
endfunction()
