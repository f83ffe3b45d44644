// What product the host is. The texts live as long as the process; none is ever null.
#pragma once

const char* ProductState_GetName();
const char* ProductState_GetVersion();
const char* ProductState_GetBuildNumberString();
const char* ProductState_GetCompilationOption();  // "debug" or "release"
