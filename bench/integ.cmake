# The add-in under an integrator's worst cases: hostile request headers, and a
# 64-megapixel OCR request (peak memory and time), against the real process.
add_executable(bench_integ ${CMAKE_CURRENT_LIST_DIR}/integ_bench.cc)
target_include_directories(bench_integ PRIVATE "${CMAKE_SOURCE_DIR}/tests" "${CMAKE_CURRENT_LIST_DIR}")
target_link_libraries(bench_integ PRIVATE velmora_client archive ocr_markings opencv_imgproc)
target_compile_definitions(bench_integ PRIVATE
  VELMORA_ADDIN_PATH="${CMAKE_BINARY_DIR}/src/app/VelmoraAddin"
  VELMORA_BUILD_VISION_DIR="${VELMORA_VISION_BUILD_DIR}")
add_dependencies(bench_integ VelmoraAddin)
