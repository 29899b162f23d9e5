add_library(nd_transport INTERFACE)
target_include_directories(nd_transport INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(nd_transport INTERFACE nd_wire nd_threads nd_host nd_config nd_log)
