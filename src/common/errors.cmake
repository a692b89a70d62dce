# ec.h and the rows of zd_err_info, generated from the error catalogue.
set(errors_catalogue ${CMAKE_CURRENT_LIST_DIR}/errors)
set(errors_generator ${PROJECT_SOURCE_DIR}/generate/gen_errors.py)
set(errors_output ${CMAKE_CURRENT_BINARY_DIR}/common)
file(GLOB errors_sources CONFIGURE_DEPENDS ${errors_catalogue}/*.err)

add_custom_command(
  OUTPUT ${errors_output}/ec.h ${errors_output}/zd_err_info_rows.inc
  COMMAND Python3::Interpreter ${errors_generator} ${errors_catalogue} ${errors_output}
  DEPENDS ${errors_generator} ${PROJECT_SOURCE_DIR}/generate/error_catalogue.py
    ${errors_catalogue}/families ${errors_sources}
  COMMENT "Generating the error codes"
  VERBATIM)
add_custom_target(zdepl_ec DEPENDS ${errors_output}/ec.h ${errors_output}/zd_err_info_rows.inc)

# Whatever links the library includes ec.h sooner or later, and so waits for it.
add_dependencies(zdepl_objects zdepl_ec)
cmake_language(DEFER CALL add_dependencies zdepl zdepl_ec)
