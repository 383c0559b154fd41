# orvane_add_version_resource(TARGET "DESCRIPTION")
#
# Gives a DLL or program a VERSIONINFO resource: company "Orvane", the product name, the file and
# product version (PROJECT_VERSION, set once at the top of the project) and the description.
# The file name comes from the target itself, so call it for any executable or shared library.
if(NOT PROJECT_VERSION MATCHES "^[0-9]+\\.[0-9]+\\.[0-9]+$")
  message(FATAL_ERROR "ORVANE_VERSION '${PROJECT_VERSION}' is not major.minor.patch")
endif()

function(orvane_add_version_resource target description)
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    set(ORVANE_RC_FILETYPE VFT_APP)
  elseif(type STREQUAL "SHARED_LIBRARY" OR type STREQUAL "MODULE_LIBRARY")
    set(ORVANE_RC_FILETYPE VFT_DLL)
  else()
    message(FATAL_ERROR "orvane_add_version_resource: ${target} is neither a program nor a DLL")
  endif()
  set(ORVANE_RC_TARGET ${target})
  set(ORVANE_RC_DESCRIPTION "${description}")
  set(folder ${CMAKE_BINARY_DIR}/version-resources)
  # Two steps: the template's @VALUES@ first, then the file name generator expressions.
  configure_file(${PROJECT_SOURCE_DIR}/cmake/VersionInfo.rc.in ${folder}/${target}.rc.in @ONLY)
  file(GENERATE OUTPUT ${folder}/${target}.rc INPUT ${folder}/${target}.rc.in)
  target_sources(${target} PRIVATE ${folder}/${target}.rc)
endfunction()
