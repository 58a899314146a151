# The folder TO gets the files and folders of the list NAMES from FROM, and has no others; STAMP is made when all is there.
file(REMOVE_RECURSE "${TO}")
foreach(name IN LISTS NAMES)
    cmake_path(GET name PARENT_PATH folder)
    file(COPY "${FROM}/${name}" DESTINATION "${TO}/${folder}")
endforeach()
file(TOUCH "${STAMP}")
