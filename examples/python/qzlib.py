# SPDX-License-Identifier: MIT
"""libqzlib for Python, by ctypes: the calls that the examples use, with their types.

Declare what you add in the same way: arguments and result of each function as in qzlib.h. Without that,
ctypes takes every argument for an int, and cuts pointers.
"""

import ctypes
from ctypes import CFUNCTYPE, POINTER, c_char, c_char_p, c_int, c_uint, c_void_p

LOG_DEBUG, LOG_INFO, LOG_WARNING, LOG_ERROR, LOG_FATAL = range(5)
MBUS_SOCKET = "/tmp/mbus.sock"

# type, name (64 bytes, terminated only if shorter), payload, its length
mbus_pkg_callback = CFUNCTYPE(c_int, c_uint, POINTER(c_char), c_void_p, c_uint)

_library = ctypes.CDLL("libqzlib.so.3")  # libqzlib.so is a linker script


def _declare(name, result, *arguments):
    function = getattr(_library, name)
    function.restype, function.argtypes = result, arguments
    return function


openmsg = _declare("openmsg", None, c_char_p)
debug_msg = _declare("debug_msg", None, c_int, c_char_p, c_int, c_char_p)  # and what the format wants

service_info_init = _declare("qzlib_service_info_init", c_void_p, c_char_p)
service_info_uninit = _declare("qzlib_service_info_uninit", c_int, c_void_p)
_get_param = _declare("qzlib_service_get_param", c_int, c_void_p, c_char_p, c_char_p, c_char_p)

connect_mbus_server = _declare("qzlib_connect_mbus_server", c_int, c_char_p)
disconnect_mbus_server = _declare("qzlib_disconnect_mbus_server", c_int)
find_client_by_name = _declare("qzlib_find_client_by_name", c_void_p, c_char_p)
_mbus_write = _declare("qzlib_mbus_write", c_int, c_void_p, c_int, c_char_p, c_char_p, c_int)
_down_cache = _declare("qzlib_mbus_down_cache_process", c_int, c_int, mbus_pkg_callback)

_kept = []  # the library calls it until the process ends


def service_get_param(info, group, name):
    """The parameter's value as bytes; None when there is none."""
    value = ctypes.create_string_buffer(257)
    return value.value if _get_param(info, group, name, value) == 0 else None


def mbus_write(kind, name, data):
    """Sends data, of any length, as packets of that type to a client or topic."""
    return _mbus_write(None, kind, name, data, len(data))


def mbus_down_cache_process(max_bytes, callback):
    """Calls callback(type, name, data), the two last ones bytes, for each packet, on another thread."""

    def deliver(kind, name, data, length):
        callback(kind, name[:64].split(b"\0")[0], ctypes.string_at(data, length))
        return 0

    _kept.append(mbus_pkg_callback(deliver))
    return _down_cache(max_bytes, _kept[-1])
