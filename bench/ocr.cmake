# OCR benchmarks: accuracy and time on generated markings, and the request
# over the real port. The marking generator lives with the training program.
add_executable(bench_ocr_accuracy ocr/ocr_accuracy.cc)
target_link_libraries(bench_ocr_accuracy PRIVATE ocr_markings opencv_imgcodecs opencv_imgproc)

# Request 101 through the real add-in (the end-to-end harness of tests/).
add_executable(bench_ocr_request ocr/ocr_request.cc)
target_include_directories(bench_ocr_request PRIVATE "${CMAKE_SOURCE_DIR}/tests")
target_link_libraries(bench_ocr_request PRIVATE ocr_markings velmora_client archive opencv_imgcodecs)
target_compile_definitions(bench_ocr_request PRIVATE
  VELMORA_BUILD_VISION_DIR="${VELMORA_VISION_BUILD_DIR}"
  VELMORA_ADDIN_PATH="${CMAKE_BINARY_DIR}/src/app/VelmoraAddin")
add_dependencies(bench_ocr_request VelmoraAddin)
add_executable(bench_ocr_independent ocr/ocr_independent.cc)
target_link_libraries(bench_ocr_independent PRIVATE ocr_markings opencv_imgcodecs opencv_imgproc)
# Everything the recognition produces on a fixed set, to compare before and
# after a change that must not alter results.
add_executable(bench_ocr_digest ocr/ocr_digest.cc)
target_link_libraries(bench_ocr_digest PRIVATE ocr_markings opencv_imgproc)
target_include_directories(bench_ocr_digest PRIVATE "${CMAKE_SOURCE_DIR}/tests")
target_compile_definitions(bench_ocr_digest PRIVATE VELMORA_BUILD_VISION_DIR="${VELMORA_VISION_BUILD_DIR}")
# Processor time of the window reads of the independent benchmark
# (bench/ocr/cpu.sh runs it beside Tesseract's).
add_executable(bench_ocr_cpu ocr/ocr_cpu.cc)
target_link_libraries(bench_ocr_cpu PRIVATE ocr_markings opencv_imgcodecs opencv_imgproc)
