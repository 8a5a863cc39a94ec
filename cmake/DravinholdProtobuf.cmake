# dravinhold_protobuf(<target> PROTO_ROOT <dir> PROTOS <relative paths...>)
#
# Compiles the schemas with protoc run from PROTO_ROOT and the given relative
# names, so that each descriptor carries its name as "<store>/<schema>.proto"
# and not the source tree's path. Adds the generated sources to <target>, an
# object library, and the generated tree to its include path.
function(dravinhold_protobuf target)
  cmake_parse_arguments(ARG "" "PROTO_ROOT" "PROTOS" ${ARGN})
  set(out_dir "${CMAKE_BINARY_DIR}/generated")
  set(sources)
  foreach(proto IN LISTS ARG_PROTOS)
    string(REGEX REPLACE "\\.proto$" "" stem "${proto}")
    set(cc "${out_dir}/${stem}.pb.cc")
    set(h "${out_dir}/${stem}.pb.h")
    add_custom_command(
      OUTPUT "${cc}" "${h}"
      COMMAND ${CMAKE_COMMAND} -E make_directory "${out_dir}"
      COMMAND protobuf::protoc --proto_path=${ARG_PROTO_ROOT} --cpp_out=${out_dir} ${proto}
      DEPENDS "${ARG_PROTO_ROOT}/${proto}" protobuf::protoc
      COMMENT "Compiling ${proto}"
      VERBATIM)
    list(APPEND sources "${cc}" "${h}")
  endforeach()
  target_sources(${target} PRIVATE ${sources})
  target_include_directories(${target} PUBLIC "$<BUILD_INTERFACE:${out_dir}>")
  target_link_libraries(${target} PUBLIC protobuf::libprotobuf)
endfunction()
