# Libraries installed by scripts/setup: Debian packages, and ONNX Runtime in .deps/onnxruntime.
find_package(nlohmann_json 3.11 REQUIRED)
find_package(Eigen3 REQUIRED NO_MODULE)
find_package(Imath REQUIRED)
find_package(Threads REQUIRED)

set(QUILLON_ORT_ROOT "${CMAKE_SOURCE_DIR}/.deps/onnxruntime" CACHE PATH "ONNX Runtime library and headers")
if(NOT EXISTS "${QUILLON_ORT_ROOT}/lib/libonnxruntime.so.1")
  message(FATAL_ERROR "ONNX Runtime not found in ${QUILLON_ORT_ROOT}: run scripts/setup first")
endif()
add_library(onnxruntime SHARED IMPORTED GLOBAL)
set_target_properties(onnxruntime PROPERTIES
  IMPORTED_LOCATION "${QUILLON_ORT_ROOT}/lib/libonnxruntime.so.1"
  IMPORTED_SONAME "libonnxruntime.so.1"
  INTERFACE_INCLUDE_DIRECTORIES "${QUILLON_ORT_ROOT}/include")
