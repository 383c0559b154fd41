# Compiles every .cpp under the given folders with -fsyntax-only and fails on any error or
# warning (cmake -P):
#   -DCOMPILER=<c++ compiler> -DFLAGS=<;-list of flags> -DSOURCE_DIR=<source> -DFOLDERS=<;-list>
if(NOT COMPILER OR NOT EXISTS "${COMPILER}")
  message(FATAL_ERROR "No compiler to check with (\"${COMPILER}\"): run scripts/setup.sh and configure again")
endif()

set(sources)
foreach(folder IN LISTS FOLDERS)
  file(GLOB_RECURSE found "${SOURCE_DIR}/${folder}/*.cpp")
  list(APPEND sources ${found})
endforeach()
list(SORT sources)
list(LENGTH sources total)
if(total EQUAL 0)
  message(FATAL_ERROR "No sources under ${FOLDERS}")
endif()

set(failed 0)
foreach(source IN LISTS sources)
  execute_process(COMMAND "${COMPILER}" ${FLAGS} -fsyntax-only "${source}"
    WORKING_DIRECTORY "${SOURCE_DIR}" RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  file(RELATIVE_PATH name "${SOURCE_DIR}" "${source}")
  # A warning fails as an error does: the compile must be silent.
  if(NOT status EQUAL 0 OR NOT output STREQUAL "")
    math(EXPR failed "${failed} + 1")
    message("FAILED ${name}\n${output}")
  endif()
endforeach()

get_filename_component(compilerName "${COMPILER}" NAME)
if(failed GREATER 0)
  message(FATAL_ERROR "${failed} of ${total} files not clean under ${compilerName}")
endif()
list(JOIN FLAGS " " flagText)
message("${total} files clean under ${compilerName} ${flagText}")
