# cython: language_level=3, auto_pickle=False
# The calls that the peers share, as a Cython binding has them: text to UTF-8, the interpreter lock given up.
from libc.stdint cimport int32_t

cdef extern from "sonetrix/engine_api.h":
    ctypedef struct sonetrix_engine_t
    ctypedef struct sonetrix_cListKeyValue_t
    sonetrix_engine_t *sonetrix_engineGet()
    int32_t sonetrix_engine_IsRunning(sonetrix_engine_t *engine) nogil
    int32_t sonetrix_engine_LinkPort(sonetrix_engine_t *engine, const char *p1, const char *p2) nogil
    void sonetrix_log_LogString(int level, const char *tag, int32_t line, int32_t flag, const char *text) nogil
    sonetrix_cListKeyValue_t *sonetrix_keyValueListNew()
    void sonetrix_keyValueListDestroy(sonetrix_cListKeyValue_t *list)
    int32_t sonetrix_keyValueListAddSI32(sonetrix_cListKeyValue_t *list, const char *key, int32_t number)
    int32_t sonetrix_keyValueListAddSS(sonetrix_cListKeyValue_t *list, const char *key, const char *text)

cdef sonetrix_engine_t *engine = sonetrix_engineGet()


def isRunning():
    cdef int32_t running
    with nogil:
        running = sonetrix_engine_IsRunning(engine)
    return running != 0


def link(str p1, str p2):
    cdef bytes first = p1.encode(), second = p2.encode()
    cdef const char *c1 = first
    cdef const char *c2 = second
    cdef int32_t status
    with nogil:
        status = sonetrix_engine_LinkPort(engine, c1, c2)
    return status


def info(str message):
    cdef bytes text = message.encode()
    cdef const char *characters = text
    with nogil:
        sonetrix_log_LogString(2, "python", 0, 1, characters)


cdef class listKeyValue:
    cdef sonetrix_cListKeyValue_t *list

    def __cinit__(self):
        self.list = sonetrix_keyValueListNew()

    def __dealloc__(self):
        sonetrix_keyValueListDestroy(self.list)

    def append(self, str key, value):
        cdef bytes name = key.encode()
        if isinstance(value, int):
            sonetrix_keyValueListAddSI32(self.list, name, value)
        else:
            sonetrix_keyValueListAddSS(self.list, name, value.encode())
        return self
