# veltro_libevent: the core of Debian's libevent 2.1, an imported target. Link it PRIVATE.
#
# libevent-dev can be installed for one architecture at a time, and its event2/event-config.h is
# made for that one. script/setup unpacks the other's under build/deps/; taken are the headers whose
# sizes are the compiler's. The library itself is the runtime package's, there for both.

find_library(VELTRO_LIBEVENT_CORE NAMES libevent_core-2.1.so.7 event_core)
if(NOT VELTRO_LIBEVENT_INCLUDE)
  file(GLOB candidates
    "${PROJECT_SOURCE_DIR}/build/deps/*/usr/include/event2/event-config.h"
    "${PROJECT_SOURCE_DIR}/build/deps/*/usr/include/*/event2/event-config.h")
  find_path(VELTRO_LIBEVENT_SYSTEM_INCLUDE event2/event-config.h)
  foreach(config "${VELTRO_LIBEVENT_SYSTEM_INCLUDE}/event2/event-config.h" ${candidates})
    if(EXISTS "${config}")
      file(STRINGS "${config}" sizes REGEX "define EVENT__SIZEOF_VOID_P ${CMAKE_SIZEOF_VOID_P}$")
      if(sizes)
        string(REPLACE "/event2/event-config.h" "" include "${config}")
        set(VELTRO_LIBEVENT_INCLUDE "${include}" CACHE PATH "Folder of event2/ of this architecture")
        break()
      endif()
    endif()
  endforeach()
endif()
if(NOT VELTRO_LIBEVENT_CORE OR NOT VELTRO_LIBEVENT_INCLUDE)
  message(FATAL_ERROR "libevent for ${CMAKE_SIZEOF_VOID_P}-byte addresses is missing: run script/setup")
endif()

add_library(veltro_libevent SHARED IMPORTED GLOBAL)
set_target_properties(veltro_libevent PROPERTIES
  IMPORTED_LOCATION "${VELTRO_LIBEVENT_CORE}"
  INTERFACE_INCLUDE_DIRECTORIES "${VELTRO_LIBEVENT_INCLUDE}")
