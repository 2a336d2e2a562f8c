target_link_libraries(${name} PRIVATE tavo_client)
