/*
 * Plays the scripts of scripts/ through libtnw.dll, with a scripted peer for a service.
 */
#include <gtest/gtest.h>

#include "peer_player.h"

namespace {

class Scripts : public testing::TestWithParam<ScriptCase> {};

TEST_P(Scripts, Play) { PeerPlayer().play_case(GetParam()); }

std::string name_of(const testing::TestParamInfo<ScriptCase>& info) {
  return identifier_of(info.param);
}

INSTANTIATE_TEST_SUITE_P(Calls, Scripts, testing::ValuesIn(script_cases("calls")), name_of);
INSTANTIATE_TEST_SUITE_P(Limits, Scripts, testing::ValuesIn(script_cases("limits")), name_of);
INSTANTIATE_TEST_SUITE_P(Opens, Scripts, testing::ValuesIn(script_cases("opens")), name_of);
INSTANTIATE_TEST_SUITE_P(Purges, Scripts, testing::ValuesIn(script_cases("purges")), name_of);
INSTANTIATE_TEST_SUITE_P(Refusals, Scripts, testing::ValuesIn(script_cases("refusals")), name_of);
INSTANTIATE_TEST_SUITE_P(Starts, Scripts, testing::ValuesIn(script_cases("starts")), name_of);

}  // namespace
