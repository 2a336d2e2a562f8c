target_link_libraries(${name} PRIVATE tavoctl_top_model)
