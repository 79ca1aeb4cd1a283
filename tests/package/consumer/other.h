// The consumer's second source.

#pragma once

/// Puts services of its own in place of the package's, uses them and what the
/// package throws, and puts the package's back.
bool canReplaceServices();
