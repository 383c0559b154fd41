# Builds the MSI from a stage folder with wixl:
#   cmake -DSTAGE=<folder with x64/ and x86/> -DOUTPUT=<file.msi> -DVERSION=<x.y.z> -P MakeMsi.cmake
# Used by the msi target and by scripts/sign.sh (which stages signed copies), so both make the
# same package. The product code is derived from the version: a rebuild of one version keeps
# its product code (msiexec /x of a rebuilt MSI finds the installed product), and every other
# version gets its own, as a major upgrade needs.
cmake_minimum_required(VERSION 3.25)

foreach(variable STAGE OUTPUT VERSION)
  if(NOT DEFINED ${variable})
    message(FATAL_ERROR "MakeMsi.cmake: -D${variable}=... is missing")
  endif()
endforeach()
if(NOT VERSION MATCHES "^[0-9]+\\.[0-9]+\\.[0-9]+$")
  message(FATAL_ERROR "MakeMsi.cmake: version '${VERSION}' is not major.minor.patch")
endif()

# Must stay the same for every version: it ties the versions together for upgrades.
set(upgrade_code 727D04BA-EC4C-4404-BD56-2A70B88F4143)
string(UUID product_code NAMESPACE ${upgrade_code} NAME "OrvaneCSP ${VERSION}" TYPE SHA1 UPPER)

find_program(WIXL wixl REQUIRED)
set(defines -D Version=${VERSION} -D ProductCode=${product_code} -D UpgradeCode=${upgrade_code})
if(EXISTS ${STAGE}/x64/orvane-check.exe)
  list(APPEND defines -D WithCheckTool=1)
endif()
if(EXISTS ${STAGE}/x64/orvane-certprop.exe)
  list(APPEND defines -D WithCertProp=1)
endif()

# wixl wants the Source paths relative to the folder it runs in.
get_filename_component(output ${OUTPUT} ABSOLUTE)
get_filename_component(output_folder ${output} DIRECTORY)
file(MAKE_DIRECTORY ${output_folder})
file(REMOVE ${output})
execute_process(
  COMMAND ${WIXL} -a x64 ${defines} -o ${output} ${CMAKE_CURRENT_LIST_DIR}/OrvaneCSP.wxs
  WORKING_DIRECTORY ${STAGE}
  RESULT_VARIABLE result)
if(NOT result EQUAL 0 OR NOT EXISTS ${output})
  message(FATAL_ERROR "wixl failed (${result}) building ${output}")
endif()
file(SIZE ${output} size)
message(STATUS "Built ${output} (${VERSION}, product code {${product_code}}, ${size} bytes)")
