# Projection of many points with the area-scan division camera: the vector
# loop behind project_3d_point against a plain per-point loop.
add_executable(bench_geometry ${CMAKE_CURRENT_LIST_DIR}/geometry_bench.cc)
target_link_libraries(bench_geometry PRIVATE vision_calib)
# Same optimisation as the vision library, so the two loops differ only in shape.
target_compile_options(bench_geometry PRIVATE -O3)

# Tuple arithmetic, tuple operators, building tuples and the tuple-vectorised
# 3D operators: what the tuple representation costs outside projection.
add_executable(bench_tuple ${CMAKE_CURRENT_LIST_DIR}/tuple_bench.cc)
target_link_libraries(bench_tuple PRIVATE vision_calib vision_geometry vision_filter)
target_compile_options(bench_tuple PRIVATE -O3)
