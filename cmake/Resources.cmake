# The strings tables, copied to where the programs of the tree look for them.
file(GLOB_RECURSE tables CONFIGURE_DEPENDS RELATIVE ${PROJECT_SOURCE_DIR}/resources
    ${PROJECT_SOURCE_DIR}/resources/*.strings)
foreach(table IN LISTS tables)
    configure_file(${PROJECT_SOURCE_DIR}/resources/${table} ${CMAKE_BINARY_DIR}/Resources/${table}
        COPYONLY)
endforeach()
