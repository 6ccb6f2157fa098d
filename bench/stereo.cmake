# Stereo reconstruction on the synthetic rigs against OpenCV's StereoSGBM.
add_executable(bench_stereo ${CMAKE_CURRENT_LIST_DIR}/stereo/stereo_bench.cc
               ${CMAKE_CURRENT_LIST_DIR}/stereo/surface_metrics.cc)
target_include_directories(bench_stereo PRIVATE "${CMAKE_SOURCE_DIR}")
target_link_libraries(bench_stereo PRIVATE reconstruction synthetic_rig vision_stereo vision_region vision_filter vision_calib
                      opencv_calib3d opencv_flann)
velmora_test(surface_metrics_tests SOURCES ${CMAKE_CURRENT_LIST_DIR}/stereo/surface_metrics_test.cc
             ${CMAKE_CURRENT_LIST_DIR}/stereo/surface_metrics.cc LIBS synthetic_rig)
target_include_directories(surface_metrics_tests PRIVATE "${CMAKE_SOURCE_DIR}")
# Top-surface coverage after each step of the reconstruction.
add_executable(bench_stereo_stages ${CMAKE_CURRENT_LIST_DIR}/stereo/stages_bench.cc
               ${CMAKE_CURRENT_LIST_DIR}/stereo/surface_metrics.cc)
target_include_directories(bench_stereo_stages PRIVATE "${CMAKE_SOURCE_DIR}")
target_link_libraries(bench_stereo_stages PRIVATE synthetic_rig vision_model3d vision_stereo vision_region vision_filter vision_calib)
# The Score's claimed precision against the true disparity error.
add_executable(bench_stereo_score ${CMAKE_CURRENT_LIST_DIR}/stereo/score_bench.cc
               ${CMAKE_CURRENT_LIST_DIR}/stereo/surface_metrics.cc)
target_include_directories(bench_stereo_score PRIVATE "${CMAKE_SOURCE_DIR}")
target_link_libraries(bench_stereo_score PRIVATE synthetic_rig vision_stereo vision_region vision_filter vision_calib)
