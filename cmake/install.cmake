# What is installed, by whom it is found, and the Debian packages.
# Components of the installation: runtime (shared objects), development (headers, archives and what
# CMake and pkg-config read) and openai, the binding, which is installed only when asked for.
include(CMakePackageConfigHelpers)
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/tovren_mapstead)

foreach(component IN ITEMS http openai llm)
  install(TARGETS tovren_${component} EXPORT tovren_mapstead_${component}
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development
    FILE_SET HEADERS COMPONENT development)
  install(EXPORT tovren_mapstead_${component} FILE tovren_mapstead-${component}.cmake
    NAMESPACE tovren_mapstead:: DESTINATION ${config_dir} COMPONENT development)
endforeach()

configure_package_config_file(cmake/tovren_mapstead-config.cmake.in
  tovren_mapstead-config.cmake INSTALL_DESTINATION ${config_dir})
write_basic_package_version_file(tovren_mapstead-config-version.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/tovren_mapstead-config.cmake
              ${PROJECT_BINARY_DIR}/tovren_mapstead-config-version.cmake
        DESTINATION ${config_dir} COMPONENT development)

# tovren_add_pc(COMPONENT DESCRIPTION LIBS REQUIRES PRIVATE): a pkg-config file. PRIVATE is what only
# users of a static build need; pkg-config insists on whatever is named.
function(tovren_add_pc component description libs requires private)
  set(definition "")
  if(NOT BUILD_SHARED_LIBS)
    string(APPEND requires " ${private}")
    set(definition -DTOVREN_MAPSTEAD_STATIC)
  endif()
  file(RELATIVE_PATH up /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  configure_file(cmake/tovren_mapstead.pc.in tovren_mapstead_${component}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/tovren_mapstead_${component}.pc
          DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()
tovren_add_pc(http "A retrying HTTP engine" -ltovren_mapstead_http
              "" "libcurl openssl simdjson")
tovren_add_pc(llm "${PROJECT_DESCRIPTION}" -ltovren_mapstead_llm
              "tovren_mapstead_http tovren_mapstead_openai" "re2 simdjson spdlog")
tovren_add_pc(openai "The interface of a client library that the client can use" "" "" "")

# Debian packages, of a shared build for /usr: cmake --workflow --preset debian
if(BUILD_SHARED_LIBS)
  set(abi ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  set(CPACK_GENERATOR DEB)
  set(CPACK_PACKAGE_CONTACT "The developers of tovren_mapstead")
  set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
  set(CPACK_STRIP_FILES ON)
  set(CPACK_COMPONENTS_ALL runtime development openai)
  set(CPACK_DEB_COMPONENT_INSTALL ON)
  set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR})

  set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libtovren-mapstead${abi})
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_RECOMMENDS ca-certificates)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_GENERATE_SHLIBS ON)
  set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/triggers)
  file(WRITE ${PROJECT_BINARY_DIR}/triggers "activate-noawait ldconfig\n")
  set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "${PROJECT_DESCRIPTION}: shared libraries")

  set(same "libtovren-mapstead${abi} (= ${PROJECT_VERSION})")
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libtovren-mapstead-dev)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
  set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${same}")
  set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION "${PROJECT_DESCRIPTION}: development files")

  set(CPACK_DEBIAN_OPENAI_PACKAGE_NAME libtovren-mapstead-openai)
  set(CPACK_DEBIAN_OPENAI_PACKAGE_SECTION libs)
  set(CPACK_DEBIAN_OPENAI_PACKAGE_DEPENDS "${same}")
  set(CPACK_COMPONENT_OPENAI_DESCRIPTION
      "${PROJECT_DESCRIPTION}: has its calls made through a client library, this project's own")
  include(CPack)
endif()
