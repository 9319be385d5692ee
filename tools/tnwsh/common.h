/* What the shell takes from tools/common, under its own name. */
#ifndef TNWSH_COMMON_H
#define TNWSH_COMMON_H

#include "tools/common/console.h"
#include "tools/common/failure.h"
#include "tools/common/local_file.h"
#include "tools/common/program.h"
#include "tools/common/text.h"
#include "tools/common/wide_text.h"

namespace tnwsh {

using namespace tools;

}  // namespace tnwsh

#endif
