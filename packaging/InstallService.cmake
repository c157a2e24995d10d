# Units name the product's directory, which is known only now: cmake --install may be given a prefix.
set(KOLVAN_HOME "${CMAKE_INSTALL_PREFIX}")
cmake_path(ABSOLUTE_PATH KOLVAN_SYSTEM_DIRECTORY BASE_DIRECTORY "${CMAKE_INSTALL_PREFIX}" NORMALIZE
    OUTPUT_VARIABLE system)
set(system "$ENV{DESTDIR}${system}")

foreach(unit IN LISTS KOLVAN_UNITS)
    configure_file("${KOLVAN_PACKAGING}/systemd/${unit}.in" "${system}/lib/systemd/system/${unit}"
        @ONLY NO_SOURCE_PERMISSIONS)
endforeach()
foreach(kind IN ITEMS sysusers tmpfiles)
    configure_file("${KOLVAN_PACKAGING}/systemd/${KOLVAN_SERVICE}.${kind}.in"
        "${system}/lib/${kind}.d/${KOLVAN_SERVICE}.conf" @ONLY NO_SOURCE_PERMISSIONS)
endforeach()
