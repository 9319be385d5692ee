/* Output for programs: one line of JSON. What is no UTF-8 in it is replaced. */
#ifndef TNWSH_JSON_LINE_H
#define TNWSH_JSON_LINE_H

#include <fmt/format.h>

#include <nlohmann/json.hpp>

namespace tnwsh {

inline constexpr char JSON_HELP[] = "For programs: one line of JSON";

inline void print_json(const nlohmann::ordered_json& json) {
  constexpr auto REPLACE = nlohmann::ordered_json::error_handler_t::replace;
  fmt::print("{}\n", json.dump(-1, ' ', false, REPLACE));
}

}  // namespace tnwsh

#endif
