# The recognition preprocessing (gen_image_smoothed) and the filter operators
# under it, at four image sizes.
add_executable(bench_filter ${CMAKE_CURRENT_LIST_DIR}/filter_bench.cc
               ${CMAKE_SOURCE_DIR}/src/ocr/ocr_engine.cc)
target_include_directories(bench_filter PRIVATE "${CMAKE_SOURCE_DIR}/src")
target_link_libraries(bench_filter PRIVATE vision_filter vision_region opencv_imgproc
                      benchmark::benchmark)
