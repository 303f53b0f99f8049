"""The calls that the peers share, as ctypes has them."""

import ctypes

from ctypes import c_char_p, c_int, c_int32, c_void_p

library = ctypes.CDLL(None)  # the engine's functions are the process's
locked = ctypes.PyDLL(None)


def function(source, name, result, *arguments):
    found = source["sonetrix_" + name]
    found.restype, found.argtypes = result, arguments
    return found


engine = c_void_p(function(library, "engineGet", c_void_p)())
is_running = function(library, "engine_IsRunning", c_int32, c_void_p)
link_port = function(library, "engine_LinkPort", c_int32, c_void_p, c_char_p, c_char_p)
log_string = function(library, "log_LogString", None, c_int, c_char_p, c_int32, c_int32, c_char_p)
list_new = function(locked, "keyValueListNew", c_void_p)
list_destroy = function(locked, "keyValueListDestroy", None, c_void_p)
add_int = function(locked, "keyValueListAddSI32", c_int32, c_void_p, c_char_p, c_int32)
add_text = function(locked, "keyValueListAddSS", c_int32, c_void_p, c_char_p, c_char_p)


def isRunning():
    return is_running(engine) != 0


def link(p1, p2):
    return link_port(engine, p1.encode(), p2.encode())


def info(text):
    log_string(2, b"python", 0, 1, text.encode())


class listKeyValue:
    def __init__(self):
        self.list = list_new()

    def __del__(self):
        list_destroy(self.list)

    def append(self, key, value):
        if isinstance(value, int):
            add_int(self.list, key.encode(), value)
        else:
            add_text(self.list, key.encode(), value.encode())
        return self
