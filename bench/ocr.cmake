# OCR benchmarks: accuracy and time on generated markings, and the request
# over the real port. The marking generator lives with the training program.
if(NOT TARGET ocr)
  return()
endif()
if(TARGET velmora_log)
  target_link_libraries(ocr PUBLIC velmora_log)
endif()
if(NOT TARGET ocr_markings)
  # Until the tools folder is part of the build, bring the generator in here.
  add_subdirectory("${CMAKE_SOURCE_DIR}/tools/ocr_train" "${CMAKE_BINARY_DIR}/tools/ocr_train")
endif()

add_executable(bench_ocr_accuracy ocr/ocr_accuracy.cc)
target_link_libraries(bench_ocr_accuracy PRIVATE ocr_markings opencv_imgcodecs opencv_imgproc)
