/*
 * Plays the scripts of scripts/ through libtnw.dll, with a scripted peer for a service.
 */
#include <gtest/gtest.h>

#include "peer_player.h"

namespace {

class Scripts : public testing::TestWithParam<ScriptCase> {};

TEST_P(Scripts, Play) { PeerPlayer().play_case(GetParam()); }

INSTANTIATE_TEST_SUITE_P(Calls, Scripts, testing::ValuesIn(script_cases("calls")), case_name);
INSTANTIATE_TEST_SUITE_P(Limits, Scripts, testing::ValuesIn(script_cases("limits")), case_name);
INSTANTIATE_TEST_SUITE_P(Opens, Scripts, testing::ValuesIn(script_cases("opens")), case_name);
INSTANTIATE_TEST_SUITE_P(Purges, Scripts, testing::ValuesIn(script_cases("purges")), case_name);
INSTANTIATE_TEST_SUITE_P(Refusals, Scripts, testing::ValuesIn(script_cases("refusals")), case_name);
INSTANTIATE_TEST_SUITE_P(Starts, Scripts, testing::ValuesIn(script_cases("starts")), case_name);

}  // namespace
