"""The scripting interface of the running SoneTrix audio engine."""

# Standard modules that are names of this module, too.
import ctypes as ctypes
import math as math
import os as os
import time as time
import traceback as traceback
import typing as typing
from inspect import signature as signature
from typing import Any, Callable, ClassVar, Mapping, NotRequired, Protocol, TypeAlias, TypedDict

__version__: str

# In the engine a value is one of: uint32, int32, float (32 bits), double, string, an array of uint32, int32 or float.
# From the engine, strings are bytes and arrays are tuples; towards it, str is encoded as UTF-8.
_Scalar: TypeAlias = int | float | bytes
_Read: TypeAlias = _Scalar | tuple[int, ...] | tuple[float, ...]
_Write: TypeAlias = str | bytes | int | float | tuple[int, ...] | tuple[float, ...]
_Name: TypeAlias = str | bytes  # ASCII
_GraphName: TypeAlias = _Name | bytearray  # of a module, a plugin or a port
_Selector: TypeAlias = str | type | None  # what to store: None, a type name or a ctypes class
_LogLevel: TypeAlias = int
_Filter: TypeAlias = Callable[[tuple[bytes, Any]], object] | None

class _SupportsWrite(Protocol):
    def write(self, text: str, /) -> object: ...

class _Port(TypedDict):
    name: bytes
    type: int
    link: NotRequired[bytes]  # of a linked sink: the source port that feeds it

class _ModuleInfo(TypedDict):
    name: bytes
    type: int  # 0 the driver, 1 a module with a library and a configuration
    src: NotRequired[list[_Port]]
    sink: NotRequired[list[_Port]]
    library: NotRequired[bytes]
    configuration: NotRequired[dict[bytes, _Read]]
    param: dict[bytes, _Read]

class _Usage(TypedDict):
    absolute: float  # percent of the time that a block may take
    relative: float  # percent of the time that all modules took
    processId: int

class listValue:
    """An ordered list of typed values of the engine."""

    def __init__(self) -> None: ...
    def dup(self) -> listValue:
        """A new list with a copy of the values."""
    def merge(self, other: listValue) -> None:
        """Moves the other list's values to the end of this one."""
    def append(self, v: _Write, type: _Selector = None) -> listValue:
        """Appends a value and returns the list. OverflowError beyond the type's range, Exception for a value that the
        type does not go with."""
    def toList(self) -> list[_Read]: ...
    def toListType(self) -> list[Any]:
        """Pairs of value and type name; an array of integers is a tuple of such pairs."""
    __hash__: ClassVar[None]  # type: ignore[assignment]

class listKeyValue:
    """An ordered list of keys of the engine, each with a typed value."""

    def __init__(self) -> None: ...
    def dup(self) -> listKeyValue:
        """A new list with a copy of the entries."""
    def merge(self, other: listKeyValue) -> None:
        """Moves the other list's entries to the end of this one."""
    def append(self, k: _Name, v: _Write, type: _Selector = None) -> listKeyValue:
        """Appends an entry and returns the list. OverflowError beyond the type's range, Exception for a value that the
        type does not go with."""
    def remove(self, k: _Name) -> listKeyValue:
        """Removes the key, if present, and returns the list."""
    def appendFromDict(self, d: Mapping[Any, _Write]) -> listKeyValue:
        """append(key, value) for each item of a dict."""
    def appendFromDictType(self, d: Mapping[Any, tuple[Any, str]]) -> listKeyValue:
        """append for each item of a dict whose values are pairs of value and type name."""
    def toDict(self, cb: _Filter = None) -> dict[bytes, _Read]:
        """The entries; with a callable, those (key, value) that it accepts."""
    def toDictType(self, cb: _Filter = None) -> dict[bytes, tuple[_Read, str]]:
        """The entries as pairs of value and type name."""
    __hash__: ClassVar[None]  # type: ignore[assignment]

class notifyChanges:
    """Calls back with the changed parameters, on a thread of the engine, for as long as the object lives."""

    def __new__(cls, callback: Callable[[dict[bytes, _Read]], object]) -> notifyChanges: ...

class notifyMeters:
    """Calls back with the meters, on a thread of the engine, for as long as the object lives."""

    def __new__(cls, callback: Callable[[dict[bytes, _Read]], object], meters_type: int = 1) -> notifyMeters: ...

class timeout:
    """Calls back when the time elapses, on a thread of the engine; dropping the object removes the timer. Whether it
    elapses once or again and again is the engine's choice."""

    def __new__(cls, timeout_ms: int, callback: Callable[[], object]) -> timeout: ...

class engine:
    """The running engine. Exception "engine not initialized" when the process has none."""

    METER_SLOW: ClassVar[int]
    METER_FAST: ClassVar[int]

    # Life cycle and status
    @staticmethod
    def initEngine() -> None:
        """Called at import. MemoryError when the process has no engine."""
    @staticmethod
    def exit() -> None:
        """Requests the engine to stop; sets no exit code."""
    @staticmethod
    def param() -> listKeyValue:
        """A copy of the start parameters."""
    @staticmethod
    def isRunning() -> bool: ...
    @staticmethod
    def getXrunCounter() -> int: ...
    @staticmethod
    def waitUntilEnd() -> None:
        """Returns at most a tenth of a second after the engine has stopped."""
    @staticmethod
    def getFrameRate() -> int:
        """Frames per second."""
    @staticmethod
    def cpuInfo() -> tuple[float, float, float, float, float, float]:
        """(cpuUsageMean, cpuUsagePeakMean, timeUsage, timeUsagePeak, maxCpuTime, maxCpuTimeErr); percent, seconds."""
    @staticmethod
    def hasDriver() -> bool: ...
    @staticmethod
    def getDriverName() -> str:
        """Exception "could not get driver name"."""
    @staticmethod
    def getLastAudioTimeStamp() -> float:
        """Seconds since the epoch at the current block's begin."""
    @staticmethod
    def now() -> float:
        """Seconds since the epoch; needs no engine."""

    # Parameters
    @staticmethod
    def getParam(k: _Name | list[_Name] | tuple[_Name, ...]) -> listKeyValue:
        """Those found; a key "module." stands for all of a module's."""
    @staticmethod
    def getParams(k: listValue) -> listKeyValue: ...
    @staticmethod
    def setParams(k: listKeyValue) -> listKeyValue:
        """Those written."""
    @staticmethod
    def setParamsCli(k: listKeyValue) -> listKeyValue:
        """Those written."""

    # Modules, ports and links; an int result is the engine's status, 0 on success
    @staticmethod
    def listAvailableModules() -> list[bytes]: ...
    @staticmethod
    def newModule(name: _GraphName, identifier: _GraphName, info: listKeyValue | None) -> int: ...
    @staticmethod
    def delModule(name: _GraphName) -> int: ...
    @staticmethod
    def getModuleNames() -> list[bytes]: ...
    @staticmethod
    def getModuleInfos() -> list[_ModuleInfo]: ...
    @staticmethod
    def getUsageInfo() -> dict[bytes, _Usage]: ...
    @staticmethod
    def getPortNames() -> list[bytes]: ...
    @staticmethod
    def getLink(p: _GraphName) -> list[bytes]: ...
    @staticmethod
    def link(p1: _GraphName, p2: _GraphName | None = None) -> int:
        """Without a second port, or with an empty one, removes all links of the first."""

    # Meters
    @staticmethod
    def addDebugMeter(k: _Name, v: str | bytes | int | float, type: str = "", meters_type: int = 1) -> None: ...
    @staticmethod
    def delDebugMeter(k: _Name, meters_type: int = 1) -> None: ...
    @staticmethod
    def getLastMeter(k: _Name = "", meters_type: int = 1) -> listKeyValue:
        """Of "module", or those of "module.name" whose keys begin so."""
    @staticmethod
    def getMeters(module: _Name = "", meters_type: int = 2) -> listKeyValue:
        """Makes the caller the engine's meter manager. The default type is refused."""
    @staticmethod
    def getMeterInfo(meters_type: int = 2) -> listKeyValue:
        """The default type is refused."""
    @staticmethod
    def unregisterMetersManager() -> None: ...

    # Graph and timers
    @staticmethod
    def dot(filename: str) -> None:
        """Writes the graph for Graphviz. Exception when no driver is loaded."""
    @staticmethod
    def _writeLinesWithHeader(f: _SupportsWrite, lines: str, lineHeaderCount: int) -> None: ...
    @staticmethod
    def addTimer(timeout_ms: int, callback: Callable[[], object]) -> timeout: ...

class log:
    """The engine's log. Levels are 0 (TRACE) to 5 (FATAL)."""

    TRACE: ClassVar[int]
    DEBUG: ClassVar[int]
    INFO: ClassVar[int]
    WARN: ClassVar[int]
    ERROR: ClassVar[int]
    FATAL: ClassVar[int]
    @staticmethod
    def getLevel() -> _LogLevel: ...
    @staticmethod
    def setLevel(level: int) -> None: ...
    @staticmethod
    def logb(level: int, message: bytes) -> None: ...
    @staticmethod
    def log(level: int, message: str) -> None: ...
    @staticmethod
    def trace(message: str) -> None: ...
    @staticmethod
    def debug(message: str) -> None: ...
    @staticmethod
    def info(message: str) -> None: ...
    @staticmethod
    def warn(message: str) -> None: ...
    @staticmethod
    def error(message: str) -> None: ...
    @staticmethod
    def fatal(message: str) -> None: ...
    @staticmethod
    def logTime(timeOn: int) -> None: ...
    @staticmethod
    def logOnFile(filename: _Name, timeOn: int = -1) -> None:
        """An empty name ends logging to a file."""
    @staticmethod
    def logSysLog(on: object = True) -> None: ...
    @staticmethod
    def logJournal(on: object = True) -> None: ...
    @staticmethod
    def getLevelJournal() -> _LogLevel: ...
    @staticmethod
    def setLevelJournal(level: int) -> None: ...

class memory:
    @staticmethod
    def inspect() -> None:
        """Prints the engine's account of its real-time memory."""

def exit(exitcode: int | None = None) -> None:
    """Sets the exit code, if one is given, and requests the engine to stop; returns at once."""

def add_clear_callback(callback: Callable[[], object]) -> None:
    """The callback runs when the console is cleaned up. ValueError when it is not callable."""

def cpu(hold: object = False) -> None:
    """A live line of the engine's load, until the engine stops."""

def usageInfo() -> None:
    """A live table of the modules' load, until the engine stops."""
