# tarvek_generate_interfaces(TARGET <target> XML <file>... [OUTPUT_DIR <dir>]
#                            [NAMESPACE <ns>] [ASYNC] [STUBS])
#
# Runs tarvek-codegen at build time: for every XML file, <dir>/<name>.hpp with the classes
# of all interfaces in it (<name> is the file's name without ".xml"), regenerated whenever
# the XML or the generator changes. The headers become sources of <target>, and <dir>
# (default: ${CMAKE_CURRENT_BINARY_DIR}/tarvek-generated) one of its include directories,
# so `#include "org.example.Lamp.hpp"` finds them. NAMESPACE, ASYNC and STUBS are passed on
# as --namespace, --async and --stubs.
#
# The generator is the target tarvek::codegen: the imported one that find_package(tarvek-core)
# brings, or the one built in the same source tree.
function(tarvek_generate_interfaces)
  cmake_parse_arguments(G "ASYNC;STUBS" "TARGET;OUTPUT_DIR;NAMESPACE" "XML" ${ARGN})
  if(NOT G_TARGET OR NOT G_XML)
    message(FATAL_ERROR "tarvek_generate_interfaces: TARGET and XML are required")
  endif()
  if(G_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "tarvek_generate_interfaces: unknown arguments ${G_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT TARGET tarvek::codegen)
    message(FATAL_ERROR "tarvek_generate_interfaces: no tarvek::codegen target (find_package(tarvek-core) first)")
  endif()
  if(NOT G_OUTPUT_DIR)
    set(G_OUTPUT_DIR ${CMAKE_CURRENT_BINARY_DIR}/tarvek-generated)
  endif()
  # The real target behind an alias, since DEPENDS wants one it can name in the build.
  get_target_property(generator tarvek::codegen ALIASED_TARGET)
  if(NOT generator)
    set(generator tarvek::codegen)
  endif()

  set(options)
  if(DEFINED G_NAMESPACE)
    list(APPEND options --namespace "${G_NAMESPACE}")
  endif()
  if(G_ASYNC)
    list(APPEND options --async)
  endif()
  if(G_STUBS)
    list(APPEND options --stubs)
  endif()

  set(headers)
  foreach(xml IN LISTS G_XML)
    get_filename_component(xml_path "${xml}" ABSOLUTE)
    get_filename_component(stem "${xml}" NAME)
    string(REGEX REPLACE "\\.xml$" "" stem "${stem}")
    set(header ${G_OUTPUT_DIR}/${stem}.hpp)
    add_custom_command(
      OUTPUT ${header}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${G_OUTPUT_DIR}
      COMMAND ${generator} ${options} --header ${header} ${xml_path}
      DEPENDS ${xml_path} ${generator}
      COMMENT "Generating ${stem}.hpp from ${stem}.xml"
      VERBATIM)
    list(APPEND headers ${header})
  endforeach()
  target_sources(${G_TARGET} PRIVATE ${headers})
  target_include_directories(${G_TARGET} PRIVATE ${G_OUTPUT_DIR})
endfunction()
