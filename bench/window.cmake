# The recognition preview end to end and the image conversions under it.
add_executable(bench_preview ${CMAKE_CURRENT_LIST_DIR}/preview_bench.cc)
target_include_directories(bench_preview PRIVATE "${CMAKE_SOURCE_DIR}/tests")
target_link_libraries(bench_preview PRIVATE ocr imaging velmora_client benchmark::benchmark)
target_compile_definitions(bench_preview PRIVATE
  VELMORA_BUILD_VISION_DIR="${VELMORA_VISION_BUILD_DIR}"
  VELMORA_ADDIN_PATH="${CMAKE_BINARY_DIR}/src/app/VelmoraAddin")
add_dependencies(bench_preview VelmoraAddin)
