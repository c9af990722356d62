# The programs read their configuration under /etc, whatever the prefix.
foreach(component ${CPACK_COMPONENTS_ALL})
  set(tree ${CPACK_TEMPORARY_DIRECTORY}/${component})
  if(EXISTS ${tree}/usr/etc)
    file(RENAME ${tree}/usr/etc ${tree}/etc)
  endif()
endforeach()
