# Runs tarvek_generate_interfaces in a project of its own, with the generator as an
# imported target (as find_package(tarvek-core) provides it): the header appears on the
# first build, stays when nothing changed, and is made again after the XML changed.
# Called with -DSOURCE_DIR -DWORK_DIR -DGENERATOR -DGENERATOR_NAME.
file(REMOVE_RECURSE ${WORK_DIR})
file(MAKE_DIRECTORY ${WORK_DIR}/src)
file(WRITE ${WORK_DIR}/src/CMakeLists.txt "cmake_minimum_required(VERSION 3.25)
project(uses_codegen LANGUAGES CXX)
add_executable(tarvek::codegen IMPORTED)
set_target_properties(tarvek::codegen PROPERTIES IMPORTED_LOCATION \"${GENERATOR}\")
include(\"${SOURCE_DIR}/cmake/TarvekGenerateInterfaces.cmake\")
add_executable(app main.cpp)
tarvek_generate_interfaces(TARGET app XML org.example.Lamp.xml STUBS)
")
file(WRITE ${WORK_DIR}/src/main.cpp "int main() { return 0; }\n")
file(WRITE ${WORK_DIR}/src/org.example.Lamp.xml
  "<interface name=\"org.example.Lamp\"><property name=\"On\" type=\"b\" access=\"read\"/></interface>\n")

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT result EQUAL 0)
    message(FATAL_ERROR "failed: ${ARGN}\n${out}")
  endif()
endfunction()

set(header ${WORK_DIR}/build/tarvek-generated/org.example.Lamp.hpp)
run(${CMAKE_COMMAND} -G ${GENERATOR_NAME} -S ${WORK_DIR}/src -B ${WORK_DIR}/build)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
if(NOT EXISTS ${header})
  message(FATAL_ERROR "the first build made no ${header}")
endif()
file(READ ${header} first)
if(NOT first MATCHES "Property<bool> on" OR NOT first MATCHES "class LampStub")
  message(FATAL_ERROR "the header lacks the property or the stub:\n${first}")
endif()

# A second build with nothing changed leaves the header alone.
file(TIMESTAMP ${header} before "%s")
execute_process(COMMAND ${CMAKE_COMMAND} -E sleep 1.1)
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
file(TIMESTAMP ${header} after "%s")
if(NOT before STREQUAL after)
  message(FATAL_ERROR "the header was made again although nothing changed")
endif()

file(WRITE ${WORK_DIR}/src/org.example.Lamp.xml
  "<interface name=\"org.example.Lamp\"><property name=\"Level\" type=\"u\" access=\"read\"/></interface>\n")
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
file(READ ${header} second)
if(NOT second MATCHES "Property<std::uint32_t> level")
  message(FATAL_ERROR "the header was not made again after the XML changed:\n${second}")
endif()

# A broken XML fails the build and leaves the last header in place.
file(WRITE ${WORK_DIR}/src/org.example.Lamp.xml "<interface name=\"org.example.Lamp\">\n<property/></interface>\n")
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK_DIR}/build RESULT_VARIABLE result OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(result EQUAL 0 OR NOT out MATCHES "org.example.Lamp.xml:2: <property> has no \"name\" attribute")
  message(FATAL_ERROR "a broken XML did not fail the build with its file and line:\n${out}")
endif()
file(READ ${header} third)
if(NOT third STREQUAL second)
  message(FATAL_ERROR "a failed generation changed the header")
endif()
file(REMOVE_RECURSE ${WORK_DIR})
