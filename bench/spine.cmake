# The request port: round trip of request 1 against the real add-in, and the
# add-in's peak memory while it takes a 100 MB request.
add_executable(bench_port ${CMAKE_CURRENT_LIST_DIR}/port_bench.cc)
target_include_directories(bench_port PRIVATE "${CMAKE_SOURCE_DIR}/tests")
target_link_libraries(bench_port PRIVATE velmora_client archive)
target_compile_definitions(bench_port PRIVATE
  VELMORA_ADDIN_PATH="${CMAKE_BINARY_DIR}/src/app/VelmoraAddin"
  VELMORA_BUILD_VISION_DIR="${VELMORA_VISION_BUILD_DIR}")
add_dependencies(bench_port VelmoraAddin)
