add_library(nd_wire INTERFACE)
target_include_directories(nd_wire INTERFACE ${PROJECT_SOURCE_DIR}/src)
target_link_libraries(nd_wire INTERFACE nd_config)
