# The 3D view: redraw and coordinate images of a reconstruction-sized surface.
add_executable(bench_viewer ${CMAKE_CURRENT_LIST_DIR}/viewer_bench.cc)
target_link_libraries(bench_viewer PRIVATE viewer_procedures benchmark::benchmark)

# From '3DM1' to the surface on screen, with the synthetic side-camera server.
add_executable(bench_viewer_job ${CMAKE_CURRENT_LIST_DIR}/viewer_job_bench.cc)
target_include_directories(bench_viewer_job PRIVATE "${CMAKE_SOURCE_DIR}/tests")
target_link_libraries(bench_viewer_job PRIVATE addin_core)
target_compile_definitions(bench_viewer_job PRIVATE VELMORA_SIDECAM_PATH="$<TARGET_FILE:velmora-sidecam>")
add_dependencies(bench_viewer_job velmora-sidecam)
