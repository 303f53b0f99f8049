"""Tells whether the interpreter that runs this can be embedded.

Prints version, executable, include directory and shared library, separated by ";". Exits with 1 and the reason on
standard error when the interpreter is too old or its headers or shared library are missing. Runs on any Python 3.
"""

import os
import sys
import sysconfig


def shared_library():
    names = [sysconfig.get_config_var("LDLIBRARY"), sysconfig.get_config_var("INSTSONAME")]
    # The prefix first: in another system's tree, the configured folder is one of this system.
    own = os.path.join(sys.base_prefix, "lib")
    folders = [own, os.path.join(own, sysconfig.get_config_var("MULTIARCH") or ""), sysconfig.get_config_var("LIBDIR")]
    for name in names:
        for folder in folders:
            if name and folder and ".so" in name and os.path.exists(os.path.join(folder, name)):
                return os.path.join(folder, name)
    return None


def main():
    version = ".".join(str(part) for part in sys.version_info[:3])
    if sys.version_info < (3, 11) or sys.implementation.name != "cpython":
        sys.exit("%s %s: CPython 3.11 or newer is needed" % (sys.implementation.name, version))
    include = sysconfig.get_path("include")
    if not os.path.exists(os.path.join(include, "Python.h")):
        sys.exit("%s: no Python.h in %s" % (version, include))
    library = shared_library()
    if not library:
        sys.exit("%s: built without a shared library" % version)
    print(";".join([version, sys.executable, include, library]))


main()
