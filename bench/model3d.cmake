# Point-cloud operators of the 3D object models: connection, sampling,
# smoothing, triangulation on stereo-sized clouds.
add_executable(bench_model3d ${CMAKE_CURRENT_LIST_DIR}/model3d_bench.cc)
target_link_libraries(bench_model3d PRIVATE vision_model3d benchmark::benchmark)
