/* What the shell takes from tools/common and tools/drive, under its own name. */
#ifndef TNWSH_COMMON_H
#define TNWSH_COMMON_H

#include "tools/common/console.h"
#include "tools/common/failure.h"
#include "tools/common/local_file.h"
#include "tools/common/program.h"
#include "tools/common/text.h"
#include "tools/common/wide_text.h"
#include "tools/drive/drive_file.h"
#include "tools/drive/drive_options.h"
#include "tools/drive/drive_path.h"
#include "tools/drive/drive_session.h"

namespace tnwsh {

using namespace tools;

}  // namespace tnwsh

#endif
