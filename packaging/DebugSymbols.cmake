# Install-time script (see Packaging.cmake): keeps a program's debugging
# information apart from the program, the way Debian's -dbgsym packages do.
#
# In: ND_OBJCOPY; nd_built, the program in the build tree; nd_work, a scratch
# folder; and either nd_strip, the installed program to strip (absolute, without
# DESTDIR), or nd_debug_dir, where the .build-id tree of debugging files goes.
# Both ways start from the program in the build tree, so that either can run
# alone (cpack installs the package's parts one at a time).

function(nd_run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE failed)
  if(failed)
    message(FATAL_ERROR "${ARGN}: ${failed}")
  endif()
endfunction()

get_filename_component(nd_name "${nd_built}" NAME)
file(MAKE_DIRECTORY "${nd_work}")
set(nd_debug "${nd_work}/${nd_name}.debug")
nd_run("${ND_OBJCOPY}" --only-keep-debug --compress-debug-sections "${nd_built}" "${nd_debug}")

if(nd_strip)
  # As dh_strip does: no symbols, no .comment or .note, and a link to the
  # debugging file (name and checksum) for debuggers that do not use build ids.
  nd_run("${ND_OBJCOPY}" --strip-all --remove-section=.comment --remove-section=.note
         "--add-gnu-debuglink=${nd_debug}" "$ENV{DESTDIR}${nd_strip}")
else()
  # The build id note: a 16-byte header (name size, descriptor size, type,
  # "GNU\0"), then the id. Debuggers look for the file as .build-id/xx/rest.
  set(nd_note "${nd_work}/${nd_name}.build-id")
  nd_run("${ND_OBJCOPY}" -O binary --only-section=.note.gnu.build-id "${nd_built}" "${nd_note}")
  file(READ "${nd_note}" nd_id OFFSET 16 HEX)
  string(LENGTH "${nd_id}" nd_id_length)
  if(nd_id_length LESS 16)
    message(FATAL_ERROR "${nd_built} has no build id (link with --build-id)")
  endif()
  string(SUBSTRING "${nd_id}" 0 2 nd_id_dir)
  string(SUBSTRING "${nd_id}" 2 -1 nd_id_file)
  file(INSTALL "${nd_debug}" DESTINATION "${nd_debug_dir}/.build-id/${nd_id_dir}"
       RENAME "${nd_id_file}.debug" FILE_PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ WORLD_READ)
endif()
