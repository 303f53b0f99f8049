import unittest
from support import engine_double as d
class T(d.TestCase):
    def test_x(self):
        s=self.sonetrix
        d.result("sonetrix_engine_LinkPort",3)
        self.assertEqual(s.engine.link("a:out","b:in"),3)
        print(d.calls("sonetrix_engine_LinkPort"))
        d.gives("sonetrix_engine_GetParams",{"a.b":1.5,"c":(2,"uint32")})
        print(s.engine.getParam("a.b").toDictType())
        got=[]
        n=s.notifyChanges(lambda x: got.append(x))
        d.fire(d.CHANGES,{"k":1}, threads=2)
        d.fire(d.CHANGES,{"k":1}, threads=0, lock_held=True)
        print(got, d.log_lines(), d.registrations(d.CHANGES)); del n; print(d.registrations(d.CHANGES))
        d.modules(d.Module.of(b"mod",sources=[(b"mod:out",1)],sinks=[(b"mod:in",2,b"x:y")]))
        d.gives("sonetrix_engine_ModuleGetStartParameter",{"conf":1})
        print(s.engine.getModuleInfos())
        d.gives("sonetrix_engine_getStartParameter", {"p":1})
