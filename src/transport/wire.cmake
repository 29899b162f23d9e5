# Framing and encodings of the gateway wire: plain functions over buffers.
add_library(nd_wire STATIC
  ${CMAKE_CURRENT_LIST_DIR}/httputil.cpp
  ${CMAKE_CURRENT_LIST_DIR}/yenc.cpp
  ${CMAKE_CURRENT_LIST_DIR}/CRC32.cpp
  ${CMAKE_CURRENT_LIST_DIR}/password.cpp
  ${CMAKE_CURRENT_LIST_DIR}/gengsk.cpp
  ${CMAKE_CURRENT_LIST_DIR}/MD5.cpp)
target_include_directories(nd_wire PUBLIC ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(nd_wire PUBLIC nd_log)
