# Link options that keep our programs quick to start. The extension host lives for one
# notification, so what it pays before main() matters as much as its work: every shared
# library costs an open, several mmaps, its relocations (most Debian libraries bind all their
# symbols at load) and the page faults that go with them. libcairo.so alone brings fifteen
# more objects (X11, xcb, fontconfig, pixman, png, expat), which the canvas never uses.
#
# So the libraries only we use (cairo with pixman, libpng, FreeType, fontconfig, expat;
# libjpeg; ICU; Boost.JSON and Boost.URL) come from their static archives: only the members
# we call are linked in. libcurl and what it loads (OpenSSL, GnuTLS, Kerberos, LDAP...) stay
# shared: Debian ships no static build of them, and a process that loads them once pays
# the same as the curl command line does. zlib and brotli stay shared because curl loads
# them anyway.
#
# Measured on the end-to-end benchmark (bench/e2e/run.sh): the dynamic loader's part of the
# host drops from 58 objects to 34: about 15 ms of CPU time and 2.5 MB of resident memory less
# per delivery.
#
# Turn it off with -DHERALD_STATIC_LIBRARIES=OFF; programs then load the shared libraries.

option(HERALD_STATIC_LIBRARIES "Link cairo, FreeType, libjpeg, ICU and Boost from their static archives" ON)

include(CheckLinkerFlag)
# Drop shared libraries a program does not call (Debian's toolchain keeps them by default).
check_linker_flag(CXX "LINKER:--as-needed" HERALD_LINKER_AS_NEEDED)
if(HERALD_LINKER_AS_NEEDED)
  add_link_options("LINKER:--as-needed")
endif()
# Sections nothing refers to stay out of the program: with static archives, an object pulled
# in for one function brings its neighbours' tables and code, which still cost pages when
# they sit next to used ones (about 200 KB of the host's resident memory).
check_linker_flag(CXX "LINKER:--gc-sections" HERALD_LINKER_GC_SECTIONS)
if(HERALD_LINKER_GC_SECTIONS)
  add_link_options("LINKER:--gc-sections")
endif()
# Position-independent programs carry one relocation per pointer in their data; packed, the
# table is a few KB instead of several hundred (glibc 2.36 and binutils 2.38 or later).
check_linker_flag(CXX "LINKER:-z,pack-relative-relocs" HERALD_LINKER_PACK_RELATIVE_RELOCS)
if(HERALD_LINKER_PACK_RELATIVE_RELOCS)
  add_link_options("LINKER:-z,pack-relative-relocs")
endif()

if(NOT HERALD_STATIC_LIBRARIES)
  return()
endif()

# The archive beside a shared library (libfoo.so[.1.2] -> libfoo.a), or "" if there is none.
function(herald_archive_for shared out)
  string(REGEX REPLACE "\\.so(\\.[0-9.]+)?$" ".a" archive "${shared}")
  if(archive STREQUAL shared OR NOT EXISTS "${archive}")
    set(archive "")
  endif()
  set(${out} "${archive}" PARENT_SCOPE)
endfunction()

# Points an imported library target at its static archive, for every configuration it has.
# Compile definitions stay as they are: nothing in these headers differs for ELF.
function(herald_link_archive target)
  if(NOT TARGET ${target})
    return()
  endif()
  get_target_property(configurations ${target} IMPORTED_CONFIGURATIONS)
  set(properties IMPORTED_LOCATION)
  foreach(configuration IN LISTS configurations)
    list(APPEND properties IMPORTED_LOCATION_${configuration})
  endforeach()
  foreach(property IN LISTS properties)
    get_target_property(location ${target} ${property})
    if(location)
      herald_archive_for("${location}" archive)
      if(archive)
        set_target_properties(${target} PROPERTIES ${property} "${archive}")
      endif()
    endif()
  endforeach()
endfunction()

# Boost.JSON needs Boost.Container underneath.
foreach(target IN ITEMS Boost::json Boost::url Boost::container)
  herald_link_archive(${target})
endforeach()

# ICU: the archives name their data library and the dynamic loader's interface only implicitly.
find_library(HERALD_ICU_DATA_ARCHIVE libicudata.a)
if(TARGET ICU::uc AND TARGET ICU::i18n AND HERALD_ICU_DATA_ARCHIVE)
  herald_link_archive(ICU::uc)
  herald_link_archive(ICU::i18n)
  set_property(TARGET ICU::i18n APPEND PROPERTY INTERFACE_LINK_LIBRARIES ICU::uc)
  set_property(TARGET ICU::uc APPEND PROPERTY INTERFACE_LINK_LIBRARIES
    ${HERALD_ICU_DATA_ARCHIVE} Threads::Threads m)
endif()

# cairo through pkg-config names the whole X11 stack for static linking; the image surfaces
# and FreeType fonts that the canvas uses need only these.
set(cairo_archives "")
foreach(name IN ITEMS cairo pixman-1 png16 fontconfig expat freetype)
  find_library(HERALD_${name}_ARCHIVE lib${name}.a)
  list(APPEND cairo_archives "${HERALD_${name}_ARCHIVE}")
endforeach()
find_library(HERALD_z_LIBRARY z)
find_library(HERALD_brotlidec_LIBRARY brotlidec)
if(TARGET PkgConfig::CAIRO AND NOT cairo_archives MATCHES "NOTFOUND" AND HERALD_z_LIBRARY
   AND HERALD_brotlidec_LIBRARY)
  set_target_properties(PkgConfig::CAIRO PROPERTIES INTERFACE_LINK_LIBRARIES
    "${cairo_archives};${HERALD_z_LIBRARY};${HERALD_brotlidec_LIBRARY};Threads::Threads;m")
endif()

# The platform library names FreeType and libjpeg by their plain names; a target of that name
# takes their place on the link line.
foreach(name IN ITEMS freetype jpeg)
  find_library(HERALD_${name}_ARCHIVE lib${name}.a)
  if(HERALD_${name}_ARCHIVE AND NOT TARGET ${name})
    add_library(${name} STATIC IMPORTED GLOBAL)
    set_target_properties(${name} PROPERTIES IMPORTED_LOCATION "${HERALD_${name}_ARCHIVE}")
  endif()
endforeach()
if(TARGET freetype AND HERALD_png16_ARCHIVE)
  set_property(TARGET freetype APPEND PROPERTY INTERFACE_LINK_LIBRARIES
    ${HERALD_png16_ARCHIVE} ${HERALD_z_LIBRARY} ${HERALD_brotlidec_LIBRARY})
endif()
