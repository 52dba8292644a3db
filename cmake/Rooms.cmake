# Each folder of the source tree is a room: one library that sees only the rooms it names.
#
# Includes are written from the top ("core/Buff.h"). A room's include path is a folder of its own that
# holds nothing but a link to the room, so an include of a room that is not linked does not build.

# tarvik_room(NAME [EXCEPT file ...] [SEES room ...])
# Every source and header of the folder belongs to the room, but for the files named.
function(tarvik_room NAME)
  cmake_parse_arguments(ROOM "" "" "EXCEPT;SEES" ${ARGN})
  set(folder ${PROJECT_SOURCE_DIR}/${NAME})
  file(GLOB sources CONFIGURE_DEPENDS RELATIVE ${folder} ${folder}/*.cpp)
  file(GLOB headers CONFIGURE_DEPENDS RELATIVE ${folder} ${folder}/*.h)
  list(REMOVE_ITEM sources "" ${ROOM_EXCEPT})
  list(REMOVE_ITEM headers "" ${ROOM_EXCEPT})
  set(view ${PROJECT_BINARY_DIR}/rooms/${NAME})
  file(MAKE_DIRECTORY ${view})
  file(CREATE_LINK ${folder} ${view}/${NAME} SYMBOLIC)
  add_library(room_${NAME} STATIC ${sources})
  target_include_directories(room_${NAME} PUBLIC ${view})
  foreach(seen IN LISTS ROOM_SEES)
    target_link_libraries(room_${NAME} PUBLIC room_${seen})
  endforeach()
  tarvik_headers_stand_alone(room_${NAME} ${NAME} ${headers})
endfunction()

# Layouts and constants of what leaves the process: leaf headers that any room may include.
function(tarvik_layouts)
  add_library(room_layouts INTERFACE)
  set(view ${PROJECT_BINARY_DIR}/rooms/layouts)
  foreach(header IN LISTS ARGN)
    get_filename_component(room ${header} DIRECTORY)
    file(MAKE_DIRECTORY ${view}/${room})
    file(CREATE_LINK ${PROJECT_SOURCE_DIR}/${header} ${view}/${header} SYMBOLIC)
  endforeach()
  target_include_directories(room_layouts INTERFACE ${view})
endfunction()

# Compiles every header of a room alone, so that each includes what it uses.
function(tarvik_headers_stand_alone TARGET ROOM)
  foreach(header IN LISTS ARGN)
    get_filename_component(stem ${header} NAME_WE)
    set(probe ${PROJECT_BINARY_DIR}/headers/${ROOM}/${stem}.cpp)
    file(CONFIGURE OUTPUT ${probe} CONTENT "#include \"${ROOM}/${header}\"\n" @ONLY)
    target_sources(${TARGET} PRIVATE ${probe})
  endforeach()
endfunction()
