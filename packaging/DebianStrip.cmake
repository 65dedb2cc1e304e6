# Run by CPack on the staged files before it builds the package: strips every
# ELF file the way Debian's own packaging does (dh_strip), which also drops
# the compiler's .comment and .note sections that plain stripping keeps.
file(GLOB_RECURSE staged LIST_DIRECTORIES false "${CPACK_TEMPORARY_INSTALL_DIRECTORY}/*")
foreach(file IN LISTS staged)
  if(IS_SYMLINK "${file}")
    continue()
  endif()
  file(READ "${file}" magic LIMIT 4 HEX)
  if(magic STREQUAL "7f454c46")
    execute_process(COMMAND "${CPACK_VELLUM_STRIP}" --remove-section=.comment
      --remove-section=.note --strip-unneeded "${file}" COMMAND_ERROR_IS_FATAL ANY)
  endif()
endforeach()
