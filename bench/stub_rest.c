/* All functions of the engine's interface that stub_engine.c does not have: one that does nothing, under their names.
 */
#include "weak_engine_functions.h"

long stub_doNothing(void);
long stub_doNothing(void) { return 0; }

#define NOTHING(name) __asm__(".weak " #name "\n.type " #name ", %function\n.set " #name ", stub_doNothing");
SONETRIX_ENGINE_FUNCTIONS(NOTHING)
