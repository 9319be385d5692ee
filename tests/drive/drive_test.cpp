/*
 * The library with the real service on a folder of real files, from the script SCRIPT. Sequences of
 * calls on files are model_test's, threads on one file one_file_test's.
 */
#include <gtest/gtest.h>

#include "real_player.h"

namespace {

class DriveScript : public testing::TestWithParam<ScriptCase> {};

TEST_P(DriveScript, Plays) { RealPlayer().play_case(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Drive, DriveScript, testing::ValuesIn(script_cases(SCRIPT)), case_name);

}  // namespace
