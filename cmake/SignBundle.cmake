# Run by cpack after Skeldrin.app is staged and Qt deployed into it, before the disk image is made:
# the app must be signed before it is sealed into the image.
file(GLOB _apps LIST_DIRECTORIES true "${CPACK_TEMPORARY_DIRECTORY}/Skeldrin.app"
  "${CPACK_TEMPORARY_DIRECTORY}/*/Skeldrin.app")
if(NOT _apps)
  message(FATAL_ERROR "Skeldrin.app is not in ${CPACK_TEMPORARY_DIRECTORY}")
endif()
list(GET _apps 0 _app)
execute_process(COMMAND "${CPACK_SKELDRIN_SOURCE_DIR}/scripts/sign-macos" app "${_app}" COMMAND_ERROR_IS_FATAL ANY)
