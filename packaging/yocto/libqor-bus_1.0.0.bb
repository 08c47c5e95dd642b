# SPDX-License-Identifier: Apache-2.0
SUMMARY = "In-process message bus for embedded applications"
SECTION = "libs"
LICENSE = "Apache-2.0"
LIC_FILES_CHKSUM = "file://LICENSE;md5=3b83ef96387f14655fc854ddc3c6bd57"

# The tree that this recipe stands in; a recipe that was copied elsewhere sets its own.
EXTERNALSRC ?= "${THISDIR}/../.."

inherit cmake externalsrc
