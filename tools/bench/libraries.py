# SPDX-License-Identifier: Apache-2.0
"""The libraries that are measured, in the order in which they are shown."""
from dataclasses import dataclass

OWN = "qor_bus"


@dataclass(frozen=True)
class Library:
    title: str
    package: str  # of Debian; none for the one that is built here
    colour: str
    shape: str    # of its points in the chart


LIBRARIES = {
    OWN: Library("qor_bus", "", "#c22222", "diamond"),
    "caf": Library("CAF", "libcaf-dev", "#2166ac", "circle"),
    "asio": Library("Asio (Boost)", "libboost1.81-dev", "#2a8a57", "square"),
    "glib": Library("GLib", "libglib2.0-dev", "#8a5fbf", "triangle"),
    "uv": Library("libuv", "libuv1-dev", "#d98a1f", "circle"),
    "ev": Library("libev", "libev-dev", "#5aa5dc", "square"),
    "tbb": Library("oneTBB", "libtbb-dev", "#333333", "triangle"),
    "queue": Library("concurrentqueue", "libconcurrentqueue-dev", "#7a5a3a", "circle"),
    "zmq": Library("ZeroMQ", "libzmq3-dev", "#a0a000", "square"),
    "nng": Library("nng", "libnng-dev", "#d05a90", "triangle"),
}


def title(name):
    return LIBRARIES[name].title
