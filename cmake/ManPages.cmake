# Man pages made from the programs' own --help by help2man, so they never
# drift from what the programs say. Sanitizer builds make none: they are not
# installed from.
find_program(VELQUIN_HELP2MAN help2man)

# velquin_man_page(TARGET NAME DESCRIPTION): NAME.1 from `TARGET --help`,
# installed into man1.
function(velquin_man_page target name description)
  if(NOT VELQUIN_HELP2MAN OR VELQUIN_SANITIZE OR CMAKE_CROSSCOMPILING)
    return()
  endif()
  set(page ${CMAKE_CURRENT_BINARY_DIR}/${name}.1)
  add_custom_command(OUTPUT ${page}
    COMMAND ${VELQUIN_HELP2MAN} --no-info --no-discard-stderr
            --version-string=${PROJECT_VERSION} --name=${description}
            --output=${page} $<TARGET_FILE:${target}>
    DEPENDS ${target}
    COMMENT "Man page ${name}.1"
    VERBATIM)
  add_custom_target(${name}_man_page ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
endfunction()
