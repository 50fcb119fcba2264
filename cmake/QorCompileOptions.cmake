# Compile settings shared by every target of this project.
#
# Assertions are part of the libraries' documented behaviour (their texts are
# matched by death tests), so NDEBUG is never defined for our own targets,
# whatever the build type.

add_library(qor_build_options INTERFACE)
target_compile_options(qor_build_options INTERFACE -Wall -Wextra -UNDEBUG)
if(QOR_WERROR)
  target_compile_options(qor_build_options INTERFACE -Werror)
endif()

if(QOR_SANITIZE STREQUAL "address")
  set(_qor_san -fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer)
elseif(QOR_SANITIZE STREQUAL "thread")
  set(_qor_san -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT QOR_SANITIZE STREQUAL "")
  message(FATAL_ERROR "QOR_SANITIZE must be empty, 'address' or 'thread', not '${QOR_SANITIZE}'")
endif()
if(_qor_san)
  target_compile_options(qor_build_options INTERFACE ${_qor_san})
  target_link_options(qor_build_options INTERFACE ${_qor_san})
endif()

# Builds the library target NAME (shared) from SOURCES, with the namespaced
# alias qor::EXPORT_NAME and the file name lib<OUTPUT_NAME>.so.
function(qor_add_library name)
  cmake_parse_arguments(ARG "" "OUTPUT_NAME;EXPORT_NAME" "SOURCES" ${ARGN})
  add_library(${name} SHARED ${ARG_SOURCES})
  add_library(qor::${ARG_EXPORT_NAME} ALIAS ${name})
  set_target_properties(${name} PROPERTIES
    OUTPUT_NAME ${ARG_OUTPUT_NAME}
    EXPORT_NAME ${ARG_EXPORT_NAME}
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR})
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_compile_features(${name} PUBLIC cxx_std_17)
  target_link_libraries(${name} PRIVATE $<BUILD_INTERFACE:qor_build_options>)
  # Calls between functions of one library stay direct (and may be inlined)
  # instead of going through the PLT for symbol interposition nobody uses.
  target_compile_options(${name} PRIVATE -fno-semantic-interposition)
endfunction()
