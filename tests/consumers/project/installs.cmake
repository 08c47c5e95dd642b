# SPDX-License-Identifier: Apache-2.0
# Installs the application, which has nothing to install of its own: what comes is the library's, and
# comes only when WANTED.
file(REMOVE_RECURSE ${BUILD}/prefix)
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${BUILD}/prefix
  COMMAND_ERROR_IS_FATAL ANY)
file(GLOB_RECURSE _installed ${BUILD}/prefix/*)
if(WANTED AND NOT EXISTS ${BUILD}/prefix/include/qor_bus/qor.h)
  message(FATAL_ERROR "nothing of the library was installed: ${_installed}")
elseif(_installed AND NOT WANTED)
  message(FATAL_ERROR "was installed unasked: ${_installed}")
endif()
