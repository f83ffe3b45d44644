// Native plugins, described by the two symbols that their object exports.
//
// Loading an object runs its constructors, and a damaged object may crash anywhere. A program that has more to do than
// to describe one object describes it in another process.
#pragma once

#include <string>

#include "plugins/description/PluginDescription.h"

namespace lofter {

// Failures are InvalidPluginException with the loader's reason when the object cannot be opened and with "Unsupported
// API version" when its interface is not one of 1 to 4; Exception "Failed loading symbol: <symbol> Located at: <path>
// Reason: <reason>" when it lacks a symbol.
PluginDescription DescribeNativePlugin(const std::string& name, const std::string& path);

// Copies what the two symbols say into the description: the provided barriers first. Throws InvalidPluginException for
// an interface that is not supported.
//
// The block comes from outside and may end early, so nothing but the version is read before the version is known, and
// the members of a release only when the version has them. Lists end with a null pointer and texts with a NUL; that the
// plugin's pointers lead to such is taken for granted, as with everything that is loaded into a process.
void ReadNativeInterface(const void* metadata, const void* operations, PluginDescription& plugin);

}  // namespace lofter
