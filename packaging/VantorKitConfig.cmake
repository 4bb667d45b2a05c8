# find_package(VantorKit 1): the target Vantor::Kit.
get_filename_component(_vantor_libraries "${CMAKE_CURRENT_LIST_DIR}/../.." ABSOLUTE)
get_filename_component(_vantor_include "${_vantor_libraries}/../../include" ABSOLUTE)
if(NOT TARGET Vantor::Kit)
  add_library(Vantor::Kit SHARED IMPORTED)
  set_target_properties(Vantor::Kit PROPERTIES
    IMPORTED_LOCATION "${_vantor_libraries}/libvantor-kit.so.1"
    IMPORTED_SONAME libvantor-kit.so.1
    INTERFACE_COMPILE_FEATURES cxx_std_17
    INTERFACE_INCLUDE_DIRECTORIES "${_vantor_include}")
endif()
unset(_vantor_libraries)
unset(_vantor_include)
