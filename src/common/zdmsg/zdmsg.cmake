# What is typed about messages is generated from messages.txt: records, field tables, setters,
# names. Included by src/CMakeLists.txt.
set(zdmsg_generated_dir ${CMAKE_CURRENT_BINARY_DIR}/common/zdmsg)
set(zdmsg_generated
  ${zdmsg_generated_dir}/zdmsg_meta_gen.h ${zdmsg_generated_dir}/zdmsg_meta_gen.cpp
  ${zdmsg_generated_dir}/zdmsg_setter_gen.h ${zdmsg_generated_dir}/zdmsg_setter_gen.cpp
  ${zdmsg_generated_dir}/zdmsg_names_gen.h ${zdmsg_generated_dir}/zdmsg_names_gen.cpp)
set(zdmsg_description ${CMAKE_CURRENT_SOURCE_DIR}/common/zdmsg/messages.txt)
add_custom_command(
  OUTPUT ${zdmsg_generated}
  COMMAND Python3::Interpreter -B ${PROJECT_SOURCE_DIR}/generate/gen_zdmsg.py
          ${zdmsg_description} ${zdmsg_generated_dir}
  DEPENDS ${zdmsg_description} ${PROJECT_SOURCE_DIR}/generate/gen_zdmsg.py
          ${PROJECT_SOURCE_DIR}/generate/zdmsg_description.py
  COMMENT "Generating the message records, tables and setters"
  VERBATIM)
target_sources(zdepl_objects PRIVATE ${zdmsg_generated})
# The walkers switch on a kind per field. Predicted branches beat the indirect jump of a table.
set_source_files_properties(${CMAKE_CURRENT_SOURCE_DIR}/common/zdmsg/zdmsg.cpp
  PROPERTIES COMPILE_OPTIONS -fno-jump-tables)

# Whoever links the library may include the generated headers, so they wait for them.
add_custom_target(zdmsg_generated DEPENDS ${zdmsg_generated})
add_dependencies(zdepl_objects zdmsg_generated)
cmake_language(DEFER CALL add_dependencies zdepl zdmsg_generated)
