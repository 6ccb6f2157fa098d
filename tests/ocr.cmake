# The recognition service's end-to-end tests.
# The service logs through velmora_log; the ocr library's own list of
# dependencies does not name it yet.
if(TARGET ocr AND TARGET velmora_log)
  target_link_libraries(ocr PUBLIC velmora_log)
endif()
