# cmake --install: headers under include/klComponents (the src/ layout, so "Components.h"
# and "formats/UWAV.h" both resolve), the static library and the DLL's import library in
# lib/, klComponents.dll in bin/, and the CMake package in lib/cmake/klComponents.
include(CMakePackageConfigHelpers)

install(DIRECTORY ${CMAKE_SOURCE_DIR}/src/ DESTINATION include/klComponents FILES_MATCHING PATTERN "*.h")
install(TARGETS klComponents klComponentsDll EXPORT klComponentsTargets
  ARCHIVE DESTINATION lib
  LIBRARY DESTINATION lib
  RUNTIME DESTINATION bin)
install(EXPORT klComponentsTargets NAMESPACE klComponents:: DESTINATION lib/cmake/klComponents)

file(WRITE ${CMAKE_BINARY_DIR}/klComponentsConfig.cmake
  "include(\"\${CMAKE_CURRENT_LIST_DIR}/klComponentsTargets.cmake\")\n")
# The version file also refuses a package built for the other pointer size, so an i686
# project cannot pick up an x86_64 installation by mistake.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/klComponentsConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/klComponentsConfig.cmake ${CMAKE_BINARY_DIR}/klComponentsConfigVersion.cmake
  DESTINATION lib/cmake/klComponents)
