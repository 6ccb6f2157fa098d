# The 3D view: redraw and coordinate images of a reconstruction-sized surface.
add_executable(bench_viewer ${CMAKE_CURRENT_LIST_DIR}/viewer_bench.cc)
target_link_libraries(bench_viewer PRIVATE viewer_procedures benchmark::benchmark)
