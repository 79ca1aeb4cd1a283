// A plug-in that needs a function which nobody has.

extern "C" int plugInNobodyHasThis();

extern "C" __attribute__((visibility("default"))) int plugInCallsNobody();

int plugInCallsNobody() { return plugInNobodyHasThis(); }
