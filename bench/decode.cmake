# The code reader's evaluation set (generated camera-like symbol images, also
# used by its tests) and the benchmark that reports read rates and timing.
add_library(decode_symbol_gen STATIC ${CMAKE_CURRENT_SOURCE_DIR}/decode/symbol_gen.cc ${CMAKE_CURRENT_SOURCE_DIR}/decode/zint_gen.cc)
target_include_directories(decode_symbol_gen PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
target_link_libraries(decode_symbol_gen PUBLIC opencv_core opencv_imgproc PRIVATE PkgConfig::ZXING)
target_compile_definitions(decode_symbol_gen PRIVATE ZX_USE_UTF8)

add_executable(bench_decode ${CMAKE_CURRENT_SOURCE_DIR}/decode_bench.cc)
target_link_libraries(bench_decode PRIVATE decode_symbol_gen decode PkgConfig::ZXING)
target_compile_definitions(bench_decode PRIVATE ZX_USE_UTF8)
# End-to-end timing of the decode request over the add-in's port.
target_link_libraries(bench_decode PRIVATE velmora_client archive)
target_include_directories(bench_decode PRIVATE ${CMAKE_SOURCE_DIR}/tests)
target_compile_definitions(bench_decode PRIVATE VELMORA_DECODE_BENCH_E2E
  VELMORA_BUILD_VISION_DIR="${VELMORA_VISION_BUILD_DIR}"
  VELMORA_ADDIN_PATH="${CMAKE_BINARY_DIR}/src/app/VelmoraAddin")
add_dependencies(bench_decode VelmoraAddin)
