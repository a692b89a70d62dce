# The scanners for SQL literals: one rule file, generated once for each of them. They differ in what
# is a character above 127 of a word, and in the prefix of their names. Included by
# src/CMakeLists.txt.
find_program(FLEX_PROGRAM flex REQUIRED)

function(zdepl_add_literal_scanner unit prefix high_character)
  set(LITERAL_PREFIX ${prefix})
  set(LITERAL_HIGH_CHARACTER ${high_character})
  set(folder ${CMAKE_CURRENT_BINARY_DIR}/common)
  set(scanner ${folder}/${unit}.cpp)
  configure_file(${CMAKE_CURRENT_SOURCE_DIR}/common/literal_scanner.l ${folder}/${unit}.l @ONLY)
  # Fast tables over classes of bytes; without the classes they are ten times as large. Run where
  # the files are, so that no path gets into what is built.
  add_custom_command(
    OUTPUT ${scanner}
    COMMAND ${FLEX_PROGRAM} -CFe --outfile=${unit}.cpp ${unit}.l
    WORKING_DIRECTORY ${folder}
    DEPENDS ${folder}/${unit}.l
    COMMENT "Generating ${unit}"
    VERBATIM)
  # The generator's own code is not as strict as ours.
  set_source_files_properties(${scanner} PROPERTIES COMPILE_OPTIONS
    "-Wno-unused-function;-Wno-unused-parameter;-Wno-sign-compare;-Wno-conversion")
  target_sources(zdepl_objects PRIVATE ${scanner})
endfunction()

zdepl_add_literal_scanner(literal_scanner lit_yy "[\\x80-\\xff]")
zdepl_add_literal_scanner(literal_sjis_scanner lit_sjis_yy
  "([\\x81-\\x9f\\xe0-\\xfc][\\x40-\\x7e\\x80-\\xfc])")
