/* What the shell is started with. */
#ifndef TNWSH_OPTIONS_H
#define TNWSH_OPTIONS_H

#include "common.h"
#include "progress.h"

namespace tnwsh {

struct Options : DriveOptions {
  ProgressMode progress = ProgressMode::AUTO;
};

}  // namespace tnwsh

#endif
