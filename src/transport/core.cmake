# The transport proper: links, registration, dispatch, sessions.
add_library(nd_transport STATIC
  ${CMAKE_CURRENT_LIST_DIR}/TransportTimings.cpp
  ${CMAKE_CURRENT_LIST_DIR}/TrackedCriticalSection.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctlconnection.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctlconnect.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctl.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctlsession.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctlregistration.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctlgateways.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctlreadthread.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctldispatch.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctlmessages.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctlfileinfo.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctlsessions.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctldataframes.cpp
  ${CMAKE_CURRENT_LIST_DIR}/htctldirectory.cpp)
target_include_directories(nd_transport PUBLIC ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(nd_transport PUBLIC nd_wire nd_threads nd_host nd_log
  Threads::Threads)
