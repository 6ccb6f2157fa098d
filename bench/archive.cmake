# The archive codec: a request carrying a 5-megapixel image, archived and
# unarchived, and the image's TIFF encoding and decoding.
add_executable(bench_archive ${CMAKE_CURRENT_LIST_DIR}/archive_bench.cc)
target_link_libraries(bench_archive PRIVATE archive benchmark::benchmark)
