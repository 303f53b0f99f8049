"""Writes docs/reference.md, in the development engine: sonetrix-engine tools/reference.py > docs/reference.md

Names, types and their order come from the stub, meanings from the docstrings of the running module, and what the
examples answer is what they have answered here.
"""

import ast
import inspect
import pathlib
import re

import sonetrix

ROOT = pathlib.Path(__file__).resolve().parents[1]
STUB = ROOT / "interface/sonetrix/sonetrix.pyi"

# Run in this order. What ends in a comment answers differently each time, and stands without an answer; what is in
# NOT_RUN would end or hold this very program.
EXAMPLES = """
engine.newModule('tone', 'sine_fcac', listKeyValue().append('frequency', 220.0))
engine.delModule('tone'), engine.newModule('tone', 'sine_fcac', None), engine.newModule('gain', 'amp_mono', None)
engine.link('tone:output', 'gain:input')
engine.getLink('tone:output')
engine.getPortNames()[:3]
engine.getModuleNames()
engine.getModuleInfos()[0]['sink'][0]
engine.getUsageInfo()  # {b'system': {'absolute': 0.1, 'relative': 60.0, 'processId': 4711}, ...}
engine.listAvailableModules()[:3]  # [b'adsr', b'alias', b'alienwah_mono']
engine.getParam('gain.gain').toDict()
engine.getParams(listValue().append('gain.gain').append('tone.')).toDict()
engine.setParams(listKeyValue().append('gain.gain', 0.25)).toDict()
engine.setParamsCli(listKeyValue().append('gain.gain', 0.5)).toDict()
engine.addDebugMeter('gain.mine', 7)
engine.getLastMeter('gain.mine').toDict()
engine.delDebugMeter('gain.mine')
engine.getMeters('system', engine.METER_FAST).toDict()  # {b'system.playback_1.peak': 0.0, ...}
engine.getMeterInfo(engine.METER_FAST).toDict()[b'system.playback_1.peak']
engine.unregisterMetersManager()
engine.initEngine()
engine.param().toDict()  # {b'python.start': b'...'}
engine.isRunning()
engine.getXrunCounter()  # 0
engine.getFrameRate()
engine.cpuInfo()[0]  # 0.4
engine.hasDriver()
engine.getDriverName()
engine.now() - engine.getLastAudioTimeStamp()  # 0.003
engine.dot('/dev/null')
t = engine.addTimer(100, lambda: print('tick'))
t = timeout(100, lambda: print('tick'))
n = notifyChanges(lambda changed: print(changed))
n = notifyMeters(lambda meters: print(meters), engine.METER_SLOW)
del t, n
listValue().append('text').append(1).append(0.5).append((1, 2), 'int32').toList()
listValue().append(1, 'uint32').append(0.5, 'double').toListType()
a, b = listValue().append(1), listValue().append(2); a.merge(b); a.dup().toList(), b.toList()
listKeyValue().append('key', 1).append('other', b'text').remove('key').toDict()
listKeyValue().append('gain', 0.5).toDictType()
listKeyValue().append('a', 1).append('b', 2).toDict(lambda entry: entry[1] > 1)
listKeyValue().appendFromDict({'a': 1, 'b': 'text'}).toDict()
listKeyValue().appendFromDictType({'a': (1, 'uint32')}).toDictType()
c, d = listKeyValue().append('a', 1), listKeyValue().append('b', 2); c.merge(d); c.dup().toDict(), d.toDict()
log.getLevel() == log.WARN
log.setLevel(log.WARN)
log.getLevelJournal(), log.setLevelJournal(log.WARN)  # 3
log.log(log.DEBUG, 'text'), log.logb(log.DEBUG, b'bytes')
log.trace('t'), log.debug('d'), log.info('i')
log.warn('w'), log.error('e'), log.fatal('f')  # three lines in the log
log.logTime(False)
log.logOnFile('/tmp/engine.log', True), log.logOnFile('')  # opens and closes it
log.logSysLog(False), log.logJournal(False)
memory.inspect()  # a table on standard output
add_clear_callback(lambda: print('good-bye'))  # printed when the console ends
engine.waitUntilEnd()  # returns when the engine has stopped
engine.exit()  # the process ends with the exit code set before, or 0
exit(3)  # the process ends with status 3
cpu()  # a live line, until Ctrl-C
usageInfo()  # a live table, until Ctrl-C
"""
NOT_RUN = ("engine.waitUntilEnd(", "engine.exit(", "exit(", "cpu(", "usageInfo(", "memory.inspect(", "add_clear", "log.warn",
           "log.logOnFile")

ENGINE_PARAMETERS = {
    "engine.block": "frames per block",
    "engine.log.level": "the log's threshold; can be written",
    "engine.meters.dropped": "blocks whose levels the meters could not take in time",
    "engine.play.file": "the sound file played into the capture ports; writing a name begins, an empty one ends",
    "engine.play.missed": "frames of it that came too late",
    "engine.rate": "frames per second",
    "engine.record.dropped": "frames that could not be written, or not in time",
    "engine.record.file": "the sound file recorded to; writing a name begins, an empty one ends",
    "engine.smoothing": "seconds that a written float control takes to its new value; can be written",
    "engine.xruns": "blocks that came too late",
}

HEAD = """# Reference

Made by `make docs-reference`; not edited by hand. Every answer below an example is what it has answered.

Conventions: the engine's text is `bytes` on the way to Python, `str` (as UTF-8; names ASCII) or `bytes` on the way to it.
`int` results of graph functions are the engine's status, 0 for success. Functions of the class `engine` raise
`Exception("engine not initialized")` in a process without an engine, `TypeError` for arguments of the wrong class, and
`OverflowError` for integers beyond 32 bits. A misspelt key is not an error: the answer is empty. The console's short words are
another package's: [console.md](console.md).

With the package `sonetrix` installed, mypy and editors know these types without settings, with the distribution's Python; with
another one, or in a build tree, `PYTHONPATH=build/release/lib/python3/dist-packages` shows them the way.

## Which one do I want

| for | take | rather than |
|---|---|---|
| some parameters' values | `engine.getParam(key)`, a key or a list of keys; `"module."` for all of a module | `getParams`, the same for a `listValue` that is there already |
| writing parameters | `engine.setParams`; what is not in its answer was refused | `setParamsCli`, the same for an engine that tells requests from its command line apart |
| a module's meters now | `engine.getLastMeter("module")`: what it has sent last | `getMeters(module, type)`, which makes the caller the engine's one meter manager, and needs the type |
| meters as they come | `notifyMeters(callback)` | polling |
| changed parameters as they come | `notifyChanges(callback)` | polling |
| what can be created | `engine.listAvailableModules()` | |
| what there is | `engine.getModuleNames()`; with ports and parameters `getModuleInfos()` | |
| a timer | `engine.addTimer(ms, callback)`, kept in a variable | `timeout(ms, callback)`, the same |
| values, for reading | `toDict()`, `toList()` | `toDictType()`, `toListType()`, which show the engine's types, too |
| many entries at once | `appendFromDict`; with types `appendFromDictType` | `append`, one by one |
| to end with an exit code | `exit(code)` | `engine.exit()`, which sets none |
| to wait for the engine's end | `engine.waitUntilEnd()` | |
| the time of the audio | `engine.getLastAudioTimeStamp()`, when the current block began | `engine.now()`, the clock |
| a line in the log | `log.info(text)` and its like | `log.log(level, text)`, `log.logb(level, bytes)` |

"""


def stub():
    """(tree, aliases, the comments that head groups of methods by line)."""
    text = STUB.read_text()
    tree = ast.parse(text)
    aliases = {node.target.id: ast.unparse(node.value) for node in tree.body
               if isinstance(node, ast.AnnAssign) and node.value is not None}
    headings = {number: match[1] for number, line in enumerate(text.splitlines(), 1)
                if (match := re.fullmatch(r"    # (.*)", line))}
    return tree, aliases, headings


def signature(node, aliases, owner=None):
    arguments = ast.unparse(node.args)
    arguments = re.sub(r"^(self|cls)(, )?", "", arguments)
    result = f" -> {ast.unparse(node.returns)}" if node.returns else ""
    if node.name in ("__new__", "__init__"):
        text = f"{owner}({arguments})"
    else:
        text = f"{owner + '.' if owner else ''}{node.name}({arguments}){result}"
    for _ in range(3):  # aliases of aliases
        text = re.sub(r"\b_\w+\b", lambda match: aliases.get(match[0], match[0]), text)
    return re.sub(r"\b_([A-Z])", r"\1", text)


def meaning(object_, node):
    text = inspect.getdoc(object_) if not inspect.isclass(object_) else object_.__doc__
    text = inspect.cleandoc(text or ast.get_docstring(node) or "")
    lines = [""]
    for line in text.splitlines():
        starts = line.startswith("- ") and not lines[-1].startswith(("- ", "  "))
        ends = not line.startswith(("- ", "  ")) and lines[-1].startswith(("- ", "  "))
        lines += [""] * (starts or ends or line.startswith("Returns:")) + [line]
    return "\n".join(lines).strip()


class Examples:
    def __init__(self):
        self.space = {name: getattr(sonetrix, name) for name in dir(sonetrix) if not name.startswith("__")}
        self.sessions = []
        for line in EXAMPLES.strip().splitlines():
            code, _, comment = line.partition("  # ")
            answer = "" if code.startswith(NOT_RUN) else self.answer(code)
            self.sessions.append((code, f"engine> {line}" + ("" if comment or not answer else f"\n{answer}")))

    def answer(self, code):
        *statements, last = ast.parse(code).body
        if not isinstance(last, ast.Expr):
            statements.append(last)
        for statement in statements:
            exec(compile(ast.Module([statement], []), "<example>", "exec"), self.space)
        if not isinstance(last, ast.Expr):
            return ""
        value = eval(compile(ast.Expression(last.value), "<example>", "eval"), self.space)
        return "" if value is None else repr(value)

    def of(self, name):
        """The first one that calls it; of a list's method, one that begins with such a list, if there is one."""
        owner, _, method = name.partition(".")
        if name.startswith("list"):
            calls = [item for item in self.sessions if f"{owner}()" in item[0] and f".{method or 'append'}(" in item[0]]
            calls.sort(key=lambda item: not item[0].startswith(f"{owner}()"))
        else:
            calls = [item for item in self.sessions if re.search(rf"(?<![\w.]){re.escape(name)}\(", item[0])]
        assert calls, f"{name} has no example"
        return calls[0][1]


def entry(name, node, object_, aliases, examples, owner=None):
    lines = [f"### {name}", "", "```python", signature(node, aliases, owner), "```", "", meaning(object_, node), ""]
    return lines + ["```", examples.of(name), "```", ""]


def reference():
    tree, aliases, headings = stub()
    examples = Examples()
    lines = [HEAD]
    functions = []
    for node in tree.body:
        if isinstance(node, ast.FunctionDef):
            functions += entry(node.name, node, getattr(sonetrix, node.name), aliases, examples)
        if not isinstance(node, ast.ClassDef) or node.name.startswith("_"):
            continue
        class_ = getattr(sonetrix, node.name)
        lines += [f"## {node.name}", "", meaning(class_, node), ""]
        line = node.lineno
        for method in node.body:
            if not isinstance(method, ast.FunctionDef) or method.name == "_writeLinesWithHeader":
                continue
            for number in range(line, method.lineno):
                if number in headings:
                    lines += [f"*{headings[number]}*", ""]
            line = method.lineno
            if method.name in ("__init__", "__new__"):
                lines += ["```python", signature(method, aliases, node.name), "```", "",
                          "```", examples.of(node.name), "```", ""]
            else:
                lines += entry(f"{node.name}.{method.name}", method, getattr(class_, method.name), aliases, examples,
                               node.name)
    lines += ["## Functions", ""] + functions
    lines += development_engine()
    return re.sub(r"\n{3,}", "\n\n", "\n".join(lines)).rstrip() + "\n"


def development_engine():
    parameters = sonetrix.engine.getParam("engine.").toDictType()
    lines = ["## The development engine", "", "Its own parameters (`engine.getParam('engine.')`):", "", "| | | |", "|---|---|---|"]
    for key, (_, type_name) in sorted(parameters.items()):
        lines.append(f"| `{key.decode()}` | {type_name} | {ENGINE_PARAMETERS[key.decode()]} |")
    return lines + [
        "| `engine.device.latency.capture` | float | with `--driver device`: seconds, as the device says itself |",
        "| `engine.device.latency.playback` | float | the same, of what is played |",
        "| `engine.offline.left` | float | with `--offline`: seconds that are still to be rendered |",
        "| `engine.offline.run` | float | with `--offline`: writing a number renders that many seconds, and returns then |",
        "", "Each module has `<module>.plugin` and its plugin's controls. What plugins there are tell parameters that are only read:",
        "", "| | | |", "|---|---|---|",
        "| `plugins.` | | all plugins' titles |",
        "| `plugins.<plugin>.` | | all of the following; each can be read by itself, too |",
        "| `plugins.<plugin>.title` | string | what the plugin calls itself |",
        "| `plugins.<plugin>.sinks`, `.sources` | string | its ports' names, separated by blanks |",
        "| `plugins.<plugin>.<control>.minimum`, `.maximum`, `.default` | float | without a bound: the smallest or largest float |",
        "| `plugins.<plugin>.<control>.unit` | string | empty where it is not known |",
        "", "Environment:", "", "| | |", "|---|---|",
        "| `LADSPA_PATH` | folders with plugins, separated by colons; else those where distributions have them |",
        "| `XDG_STATE_HOME` | the console's history is `sonetrix/history` there, else in `~/.local/state` |",
        "| `XDG_CONFIG_HOME` | the console runs `sonetrix/startup.py` there, else in `~/.config` |",
        "| `PYTHONPATH` | further folders with Python packages, as in any Python: a virtual environment's, say |", ""]


print(reference(), end="")
