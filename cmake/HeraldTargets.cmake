include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# The project's version for programs and libraries alike: platform/version.hpp is generated
# into the build tree and installed with the platform headers.
configure_file(${CMAKE_CURRENT_LIST_DIR}/version.hpp.in
  ${PROJECT_BINARY_DIR}/include/platform/version.hpp @ONLY)

# Our public headers compile Boost.Asio in this configuration; a program that includes them
# must see the same, or inline Asio code differs between its objects and our archives.
set(HERALD_INTERFACE_DEFINITIONS BOOST_ASIO_NO_DEPRECATED BOOST_ASIO_DISABLE_STD_ALIGNED_ALLOC)

# herald_package_dependency(DEP [FIND <cmake code>] [PKGCONFIG <modules>] [LIBS <flags>])
# says how a program that uses the installed libraries gets DEP, a target or library name that
# some library links: FIND is the code the package's config file runs for it (usually one
# find_dependency call), PKGCONFIG the pkg-config modules and LIBS the linker flags its .pc
# files name. A library with a new outside dependency calls this before herald_library().
function(herald_package_dependency dep)
  cmake_parse_arguments(ARG "" "FIND" "PKGCONFIG;LIBS" ${ARGN})
  string(MAKE_C_IDENTIFIER "${dep}" id)
  set_property(GLOBAL PROPERTY HERALD_DEP_${id}_KNOWN TRUE)
  set_property(GLOBAL PROPERTY HERALD_DEP_${id}_FIND "${ARG_FIND}")
  set_property(GLOBAL PROPERTY HERALD_DEP_${id}_PKGCONFIG "${ARG_PKGCONFIG}")
  set_property(GLOBAL PROPERTY HERALD_DEP_${id}_LIBS "${ARG_LIBS}")
endfunction()

herald_package_dependency(Threads::Threads FIND "find_dependency(Threads)" LIBS -pthread)
foreach(component IN ITEMS json url)
  herald_package_dependency(Boost::${component}
    FIND "find_dependency(Boost ${Boost_VERSION_MAJOR}.${Boost_VERSION_MINOR} CONFIG COMPONENTS json url)"
    LIBS -lboost_${component})
endforeach()
herald_package_dependency(CURL::libcurl FIND "find_dependency(CURL)" PKGCONFIG libcurl)
herald_package_dependency(OpenSSL::Crypto FIND "find_dependency(OpenSSL)" PKGCONFIG libcrypto)
herald_package_dependency(OpenSSL::SSL FIND "find_dependency(OpenSSL)" PKGCONFIG libssl)
herald_package_dependency(ICU::uc FIND "find_dependency(ICU COMPONENTS uc i18n)" PKGCONFIG icu-uc)
herald_package_dependency(ICU::i18n FIND "find_dependency(ICU COMPONENTS uc i18n)" PKGCONFIG icu-i18n)
herald_package_dependency(fmt::fmt FIND "find_dependency(fmt)" PKGCONFIG fmt)
# The target's name is our build's; a program that made its own cairo target keeps it.
herald_package_dependency(PkgConfig::CAIRO
  FIND [[find_dependency(PkgConfig)
if(NOT TARGET PkgConfig::CAIRO)
  pkg_check_modules(CAIRO REQUIRED IMPORTED_TARGET cairo)
endif()]]
  PKGCONFIG cairo)
# Plain library names (static archives in our build, see StaticLibraries.cmake): the exported
# targets name them as they are, so a program links the shared libraries of its system.
herald_package_dependency(PkgConfig::NCURSESW
  FIND [[find_dependency(PkgConfig)
if(NOT TARGET PkgConfig::NCURSESW)
  pkg_check_modules(NCURSESW REQUIRED IMPORTED_TARGET ncursesw)
endif()]]
  PKGCONFIG ncursesw)
herald_package_dependency(freetype PKGCONFIG freetype2)
herald_package_dependency(jpeg PKGCONFIG libjpeg)

# herald_library(NAME [DEPS ...] [PRIVATE_DEPS ...]): a static library from src/NAME/*.cpp
# with public headers in include/NAME, the alias herald::NAME, and its place in the installed
# package: archive libherald-NAME.a, headers, the imported target herald::NAME of
# find_package(Herald) and the pkg-config module herald-NAME.
function(herald_library name)
  cmake_parse_arguments(ARG "" "" "DEPS;PRIVATE_DEPS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/src/${name}/*.cpp)
  add_library(${name} STATIC ${sources})
  add_library(herald::${name} ALIAS ${name})
  # Installed next to other projects' archives, "libcore.a" would say nothing.
  set_target_properties(${name} PROPERTIES OUTPUT_NAME herald-${name} EXPORT_NAME ${name})
  target_include_directories(${name}
    PUBLIC $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
           $<BUILD_INTERFACE:${PROJECT_BINARY_DIR}/include>
           $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>
    PRIVATE ${PROJECT_SOURCE_DIR}/src)
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_compile_definitions(${name} INTERFACE ${HERALD_INTERFACE_DEFINITIONS})
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})

  install(TARGETS ${name} EXPORT HeraldTargets ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/${name}/
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name})
  if(IS_DIRECTORY ${PROJECT_BINARY_DIR}/include/${name})
    install(DIRECTORY ${PROJECT_BINARY_DIR}/include/${name}/
      DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name})
  endif()
  set_property(GLOBAL APPEND PROPERTY HERALD_LIBRARIES ${name})
  set_property(GLOBAL PROPERTY HERALD_LIBRARY_${name}_DEPS ${ARG_DEPS} ${ARG_PRIVATE_DEPS})
endfunction()

# Writes the package once every library has been declared, whichever folder declared it.
function(herald_write_package)
  get_property(libraries GLOBAL PROPERTY HERALD_LIBRARIES)
  if(NOT libraries)
    return()
  endif()
  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/Herald)
  set(pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
  # The .pc files find their prefix from where they lie, so an installed tree may move
  # (and `cmake --install --prefix` may put it anywhere).
  set(pc_prefix "${CMAKE_INSTALL_PREFIX}")
  if(NOT IS_ABSOLUTE "${pkgconfig_dir}")
    file(RELATIVE_PATH up /prefix/${pkgconfig_dir} /prefix)
    string(REGEX REPLACE "/$" "" up "${up}")
    set(pc_prefix "\${pcfiledir}/${up}")
  endif()
  foreach(dir IN ITEMS libdir includedir)
    string(TOUPPER ${dir} DIR)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_${DIR}}")
      set(pc_${dir} "${CMAKE_INSTALL_${DIR}}")
    else()
      set(pc_${dir} "\${prefix}/${CMAKE_INSTALL_${DIR}}")
    endif()
  endforeach()
  list(TRANSFORM HERALD_INTERFACE_DEFINITIONS PREPEND -D OUTPUT_VARIABLE definitions)
  string(JOIN " " pc_cflags "-I\${includedir}" ${definitions})
  set(find_code "")
  foreach(name IN LISTS libraries)
    get_property(deps GLOBAL PROPERTY HERALD_LIBRARY_${name}_DEPS)
    set(requires "")
    set(libs "")
    foreach(dep IN LISTS deps)
      if(dep MATCHES "^herald::(.+)$")
        list(APPEND requires herald-${CMAKE_MATCH_1})
        continue()
      endif()
      string(MAKE_C_IDENTIFIER "${dep}" id)
      get_property(known GLOBAL PROPERTY HERALD_DEP_${id}_KNOWN)
      if(known)
        get_property(code GLOBAL PROPERTY HERALD_DEP_${id}_FIND)
        get_property(modules GLOBAL PROPERTY HERALD_DEP_${id}_PKGCONFIG)
        get_property(flags GLOBAL PROPERTY HERALD_DEP_${id}_LIBS)
        if(code)
          list(APPEND find_code "${code}")
        endif()
        list(APPEND requires ${modules})
        list(APPEND libs ${flags})
      elseif(NOT TARGET ${dep} AND dep MATCHES "^[A-Za-z0-9_.+-]+$")
        list(APPEND libs -l${dep})  # a system library by its plain name
      elseif(NOT TARGET ${dep} AND IS_ABSOLUTE "${dep}")
        list(APPEND libs ${dep})  # found by find_library: the export names the same file
      else()
        message(WARNING "herald::${name} links ${dep}, which the installed package cannot "
          "find for its users: describe it with herald_package_dependency() (cmake/HeraldTargets.cmake)")
      endif()
    endforeach()
    # Our libraries are static archives only: whatever they need is needed on every link, so
    # it goes into Requires and Libs, which `pkg-config --libs` prints without --static.
    list(REMOVE_DUPLICATES requires)
    list(REMOVE_DUPLICATES libs)
    string(JOIN ", " pc_requires ${requires})
    string(JOIN " " pc_libs -L\${libdir} -lherald-${name} ${libs})
    set(pc_name ${name})
    # Headers of other projects that our public headers include (found by path, not module).
    set(pc_library_cflags "${pc_cflags}")
    get_target_property(include_dirs ${name} INTERFACE_INCLUDE_DIRECTORIES)
    foreach(dir IN LISTS include_dirs)
      if(IS_ABSOLUTE "${dir}")
        string(APPEND pc_library_cflags " -I${dir}")
      endif()
    endforeach()
    configure_file(${PROJECT_SOURCE_DIR}/cmake/herald.pc.in
      ${PROJECT_BINARY_DIR}/pkgconfig/herald-${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/herald-${name}.pc DESTINATION ${pkgconfig_dir})
  endforeach()

  list(REMOVE_DUPLICATES find_code)
  list(JOIN find_code "\n" HERALD_FIND_DEPENDENCIES)
  set(HERALD_LIBRARIES ${libraries})
  configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/HeraldConfig.cmake.in
    ${PROJECT_BINARY_DIR}/package/HeraldConfig.cmake
    INSTALL_DESTINATION ${package_dir})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/HeraldConfigVersion.cmake
    VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
  install(EXPORT HeraldTargets NAMESPACE herald:: DESTINATION ${package_dir})
  install(FILES ${PROJECT_BINARY_DIR}/package/HeraldConfig.cmake
    ${PROJECT_BINARY_DIR}/package/HeraldConfigVersion.cmake DESTINATION ${package_dir})
endfunction()
cmake_language(DEFER CALL herald_write_package)

# herald_test(NAME LABEL unit|integration SOURCES ... DEPS ... [BIN_DIR DIR]): one GoogleTest
# executable. Unit tests are also collected in the `unit_tests` target, which the sanitizer
# build makes. Integration tests run the programs in HERALD_BIN_DIR: this build's bin/ unless
# BIN_DIR names another build's.
if(NOT TARGET unit_tests)
  add_custom_target(unit_tests)
endif()
function(herald_test name)
  cmake_parse_arguments(ARG "" "LABEL;BIN_DIR;TIMEOUT" "SOURCES;DEPS" ${ARGN})
  if(NOT ARG_BIN_DIR)
    set(ARG_BIN_DIR ${CMAKE_BINARY_DIR}/bin)
  endif()
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_include_directories(${name} PRIVATE ${CMAKE_SOURCE_DIR}/tests ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gmock_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  gtest_discover_tests(${name}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${ARG_LABEL} TIMEOUT ${ARG_TIMEOUT}
               # One value per property: discovered tests lose the escaping of a list.
               ENVIRONMENT "HERALD_BIN_DIR=${ARG_BIN_DIR}"
               ENVIRONMENT_MODIFICATION "HERALD_SOURCE_DIR=set:${CMAKE_SOURCE_DIR}")
  if(ARG_LABEL STREQUAL "unit")
    add_dependencies(unit_tests ${name})
  endif()
endfunction()
