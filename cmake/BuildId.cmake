# Build identifier: date_shortrev_buildnumber, fixed when the build is configured.
string(TIMESTAMP QUILLON_BUILD_DATE "%Y%m%d")
execute_process(COMMAND git rev-parse --short HEAD WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
                OUTPUT_VARIABLE QUILLON_GIT_REV OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_QUIET)
if(NOT QUILLON_GIT_REV)
  set(QUILLON_GIT_REV "norev")
endif()
if(DEFINED ENV{QUILLON_BUILD_NUMBER})
  set(QUILLON_BUILD_NUMBER "$ENV{QUILLON_BUILD_NUMBER}")
else()
  set(QUILLON_BUILD_NUMBER "0")
endif()
set(QUILLON_BUILD_ID "${QUILLON_BUILD_DATE}_${QUILLON_GIT_REV}_${QUILLON_BUILD_NUMBER}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/BuildId.h.in ${CMAKE_BINARY_DIR}/generated/BuildId.h @ONLY)
