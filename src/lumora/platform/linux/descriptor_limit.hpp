#pragma once

#include <cstddef>

// The limit on open descriptors. The process table keeps one per process it
// watches, so it raises the soft limit; the programs we start get the limit
// we were started with, since some of them may still wait with select().
namespace lumora::DescriptorLimit {

// Raises the soft limit towards the hard one (at most 65,536) and returns
// the soft limit in force.
size_t raise();
// Puts back the soft limit we were started with. Safe between fork and exec.
void restoreInChild();

}  // namespace lumora::DescriptorLimit
