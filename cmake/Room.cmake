# A room is one or more folders: every .cpp directly in them belongs to its library, which is built
# for whatever links it (nothing that people install links the simulated machine).
#   korvane_room(NAME DIRECTORIES dir... [LINKS target...])
function(korvane_room name)
    cmake_parse_arguments(ROOM "" "" "DIRECTORIES;LINKS" ${ARGN})
    set(sources "")
    foreach(directory IN LISTS ROOM_DIRECTORIES)
        file(GLOB found CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${directory}/*.cpp)
        list(APPEND sources ${found})
    endforeach()
    add_library(${name} STATIC EXCLUDE_FROM_ALL ${sources})
    target_link_libraries(${name} PUBLIC korvane_options ${ROOM_LINKS})
endfunction()
