/*
 * Names compared without case, against ICU: both texts from UTF-8, and its comparison.
 */
#include <unicode/uchar.h>
#include <unicode/ustring.h>

#include "ox_text.h"
#include "parts.h"

namespace {

constexpr int CAPACITY = 512;

bool icu_equal(const std::string& a, const std::string& b) {
  UChar wide_a[CAPACITY], wide_b[CAPACITY];
  int32_t size_a = 0, size_b = 0;
  UErrorCode status = U_ZERO_ERROR;
  u_strFromUTF8(wide_a, CAPACITY, &size_a, a.data(), static_cast<int32_t>(a.size()), &status);
  u_strFromUTF8(wide_b, CAPACITY, &size_b, b.data(), static_cast<int32_t>(b.size()), &status);
  return u_strCaseCompare(wide_a, size_a, wide_b, size_b, U_FOLD_CASE_DEFAULT, &status) == 0;
}

void row(Bench& bench, const std::string& name, const std::string& a, const std::string& b) {
  const auto work = [&](auto equal) {
    return [&, equal](benchmark::State& state) {
      for (auto _ : state) {
        if (!equal(a, b)) {
          state.SkipWithError("the names differ");
          break;
        }
      }
    };
  };
  bench.pair("names without case, " + name,
             work([](const std::string& one, const std::string& two) {
               return ox_utf8_strcasecmp(one.c_str(), two.c_str()) == 0;
             }),
             work(icu_equal));
}

}  // namespace

void names_rows(Bench& bench) {
  const std::string ascii = "quarterly report of the northern sales region, final version 2.docx";
  const std::string other = "QUARTERLY REPORT OF THE NORTHERN SALES REGION, FINAL VERSION 2.DOCX";
  row(bench, "ASCII, same case", ascii, ascii);
  row(bench, "ASCII, other case", ascii, other);
  row(bench, "mixed", "übersicht der verkäufe im äußeren bezirk, отчет за год 2.docx",
      "ÜBERSICHT DER VERKÄUFE IM ÄUßEREN BEZIRK, ОТЧЕТ ЗА ГОД 2.DOCX");
}
