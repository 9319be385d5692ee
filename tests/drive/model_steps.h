/*
 * Random calls to a drive as plain records: made from a seed, told as text. Every sequence of steps
 * is valid.
 */
#ifndef MODEL_STEPS_H
#define MODEL_STEPS_H

#include <string>
#include <vector>

#include "real_drive.h"

constexpr int MODEL_REGION_SHIFT = 6;
constexpr size_t MODEL_REGION = size_t{1} << MODEL_REGION_SHIFT;
constexpr size_t MODEL_NAMES = 4; /* names that the steps use */
constexpr size_t MODEL_SLOTS = 6; /* opens at a time */

enum class Act {
  PUT, /* a new content comes into the cloud past the drive, if the file is not open */
  OPEN,
  CLOSE,
  CLEANUP,
  READ,
  READ_ALL,
  WRITE,
  RESIZE,
  RENAME,
  REMOVE,
  ASK_REMOVE,
};

/* What an act does not need is not looked at. An act on a slot that holds no open does nothing, nor
 * does an open into a slot that holds one. */
struct Step {
  Act act = Act::PUT;
  size_t slot = 0;
  size_t name = 0;
  size_t target = 0; /* the other name of a rename */
  OpenHow how;
  size_t off = 0;
  size_t len = 0;    /* of a resize and a put: the new size */
  unsigned data = 0; /* what is written; which bytes are looked at afterwards, and through whom */
};
using Steps = std::vector<Step>;

/* The same for the same arguments: first files in the cloud, `count` steps in all. */
Steps random_steps(unsigned seed, size_t count);

/* One a line. */
std::string steps_text(const Steps& steps);

#endif
