#include "tool/report_page.h"

#include <algorithm>

#include "tool/catalogue.h"
#include "tool/log_names.h"
#include "tool/status_report.h"
#include "tool/text.h"

namespace tool {
namespace {

constexpr std::int64_t shortestGap = 250;     // milliseconds; shorter gaps are not shown
constexpr std::int64_t longestGap = 20000;    // milliseconds; longer gaps are drawn with this length
constexpr std::int64_t gapScale = 80;         // milliseconds for each pixel
constexpr std::size_t explainedInPlace = 20;  // further refusals of the same kind have only a link to the explanation

constexpr const char* head = R"(<!DOCTYPE html>
<html lang="en"><head><meta charset="utf-8"><title>Tavrin report</title>
<meta name="viewport" content="width=device-width">
<meta name="color-scheme" content="light dark">
<meta http-equiv="Content-Security-Policy" content="default-src 'none'; style-src 'unsafe-inline'; script-src 'unsafe-inline'; img-src data:">
<link rel="icon" href="data:,">
<style>
:root{--back:#fff;--text:#1c2126;--soft:#66707a;--line:#d8dde2;--bad:#b3261e;--badback:#fdecea;--fine:#146c2e}
@media(prefers-color-scheme:dark){:root{--back:#14181c;--text:#e4e8ec;--soft:#98a2ac;--line:#333b43;--bad:#ff8a80;--badback:#3a1c1a;--fine:#7bd88f}}
body{font:15px/1.45 system-ui,sans-serif;background:var(--back);color:var(--text);max-width:70em;margin:2em auto;padding:0 1em}
h1{margin-bottom:0}h2{border-bottom:1px solid var(--line);margin-top:2em}
pre,.c,.g{font:13px/1.5 ui-monospace,monospace}pre{white-space:pre-wrap}
.soft,.c time,.c i{color:var(--soft);font-style:normal}.bad{color:var(--bad)}.fine{color:var(--fine)}
.c{margin:0;border-left:3px solid var(--line);padding-left:.7em;content-visibility:auto;contain-intrinsic-size:auto 1.5em}
.c.r{border-color:var(--bad);background:var(--badback)}
.c u{display:block;text-decoration:none;padding-left:2em;color:var(--soft)}
.c s{display:block;text-decoration:none;padding-left:2em;color:var(--bad)}
.c q{display:block;quotes:none;padding-left:4em;font-family:system-ui,sans-serif}
.g{margin:0;border-left:3px dotted var(--line);padding-left:.7em;color:var(--soft);box-sizing:border-box}
label{margin-right:1.2em}
#refused:checked~main .c:not(.r),#refused:checked~main .g,#brief:checked~main .c u,.hidden{display:none}
)";

constexpr const char* script = R"(<script>
const box=document.getElementById('search');box.hidden=false;
box.oninput=()=>{const text=box.value.toLowerCase();
for(const call of document.querySelectorAll('.c'))call.classList.toggle('hidden',!call.textContent.toLowerCase().includes(text))};
</script>)";

void appendEscaped(std::string& page, std::string_view text) {
  for (const char letter : text) {
    switch (letter) {
      case '&':
        page += "&amp;";
        break;
      case '<':
        page += "&lt;";
        break;
      case '>':
        page += "&gt;";
        break;
      case '"':
        page += "&quot;";
        break;
      default:
        page += letter;
    }
  }
}

std::string escaped(std::string_view text) {
  std::string result;
  appendEscaped(result, printable(text));
  return result;
}

// Keeps line ends: textReport has made the rest printable.
std::string escapedLines(const std::string& text) {
  std::string result;
  appendEscaped(result, validUtf8(text));
  return result;
}

std::string durationText(std::int64_t milliseconds) {
  if (milliseconds < 1000) return std::to_string(milliseconds) + " ms";
  if (milliseconds < 120000)
    return std::to_string(milliseconds / 1000) + "." + std::to_string(milliseconds % 1000 / 100) + " s";
  return std::to_string(milliseconds / 60000) + " min";
}

bool isHexDigit(char letter) { return (letter >= '0' && letter <= '9') || (letter >= 'A' && letter <= 'F'); }

// Replaces what identifies people, keys or data: quoted names, paths, and bytes in hexadecimal.
std::string withoutNames(std::string_view message) {
  for (const std::string_view start : {"CA Folder: ", "unexpected failure: ", "Find init id : ", "base key id :: ",
                                       "public key :: ", "Sign input hash : "}) {
    if (const auto at = message.find(start); at != message.npos) {
      return std::string(message.substr(0, at + start.size())) + "(hidden)";
    }
  }
  std::string result;
  for (std::size_t at = 0; at < message.size();) {
    const std::size_t quote = message[at] == '\'' ? message.rfind('\'') : at;
    const auto rest = message.substr(at);
    const auto* end = std::ranges::find_if_not(rest, isHexDigit);
    const auto digits = static_cast<std::size_t>(end - rest.begin());
    constexpr std::size_t longestNumber = 15;
    if (quote > at) {
      result += "(hidden)";
      at = quote + 1;
    } else if (digits > longestNumber) {
      result += "(hidden)";
      at += digits;
    } else {
      result.append(message, at, std::max<std::size_t>(digits, 1));
      at += std::max<std::size_t>(digits, 1);
    }
  }
  return result;
}

void appendFindings(std::string& page, const std::vector<std::string>& findings) {
  for (const std::string& finding : findings) page += "<li class=bad>" + escaped(finding) + "</li>\n";
}

}  // namespace

ReportPage::ReportPage(const SystemStatus& status, bool hidesNames) : status_(status), hidesNames_(hidesNames) {}

std::string ReportPage::shown(const std::string& message) const {
  return escaped(withNames(hidesNames_ ? withoutNames(message) : message));
}

std::size_t ReportPage::programNumber(const std::string& name) {
  const auto found = std::ranges::find(programs_, name);
  if (found == programs_.end()) programs_.push_back(name);
  return static_cast<std::size_t>(std::ranges::find(programs_, name) - programs_.begin());
}

void ReportPage::addGap(std::int64_t milliseconds) {
  if (lastTime_ < 0 || milliseconds < shortestGap) return;
  const std::int64_t height = std::max<std::int64_t>(20, std::min(milliseconds, longestGap) / gapScale);
  timeline_ += "<p class=g style=height:" + std::to_string(height) + "px>" + durationText(milliseconds) +
               (milliseconds > longestGap ? " (not to scale)" : "") + "</p>\n";
}

void ReportPage::addRefusal(const LoggedCall& call, const std::string& message) {
  ++refusals_;
  const Explanation* explanation = explanationOf(message);
  const std::string key = explanation   ? std::string(explanation->pattern)
                          : hidesNames_ ? withoutNames(message)
                                        : message;
  const std::string time = clockText(call.start);
  Reason& reason = reasons_.try_emplace(key, Reason{reasons_.size() + 1, 0, time, {}}).first->second;
  reason.last = time;
  ++reason.count;
  timeline_ += "<s>" + shown(message) + " <a href=#r" + std::to_string(reason.number) + ">why</a></s>";
  if (explanation && reason.count <= explainedInPlace)
    timeline_.append("<q>").append(explanation->meaning).append(" ").append(explanation->remedy).append("</q>");
}

void ReportPage::add(const LoggedCall& call) {
  ++calls_;
  addGap(call.start - lastTime_);
  lastTime_ = std::max(lastTime_, call.end);
  const std::size_t program = programNumber(call.program);
  timeline_ += "<p class=\"c p" + std::to_string(program) + (call.refused() ? " r" : "") + "\"><time>" +
               clockText(call.start) + "</time> ";
  if (!call.name.empty()) timeline_ += "<b>" + escaped(call.name) + "</b>";
  if (call.end > call.start) timeline_ += " <i>" + durationText(call.end - call.start) + "</i>";
  timeline_ += " <i>" + escaped(call.program) + "</i>";
  for (const CallLine& line : call.lines) {
    if (line.refusal) {
      addRefusal(call, line.message);
    } else {
      timeline_ += "<u>" + shown(line.message) + "</u>";
    }
  }
  timeline_ += "</p>\n";
}

std::string ReportPage::explanations() const {
  if (reasons_.empty()) return "<p class=fine>The log shows no refusal.</p>\n";
  std::vector<std::pair<std::string, Reason>> ordered(reasons_.begin(), reasons_.end());
  std::ranges::sort(ordered, {}, [](const auto& entry) { return entry.second.number; });
  std::string page = "<ol>\n";
  for (const auto& [key, reason] : ordered) {
    const Explanation* explanation = explanationOf(key);
    page += "<li id=r" + std::to_string(reason.number) + ">";
    if (explanation) {
      page.append(explanation->meaning).append(" <b>").append(explanation->remedy).append("</b>");
    } else {
      page += escaped(key) + " <b>There is no explanation for this line; send the report to support.</b>";
    }
    page += " <span class=soft>" + std::to_string(reason.count) +
            (reason.count == 1 ? " time, at " : " times, first at ") + reason.first +
            (reason.count == 1 ? "" : ", last at " + reason.last) + "</span></li>\n";
  }
  return page + "</ol>\n";
}

// The filters are checkboxes with style rules, so they work without scripts.
std::string ReportPage::filters() const {
  std::string rules;
  std::string boxes =
      "<input type=checkbox id=refused><label for=refused>refusals only</label>"
      "<input type=checkbox id=brief><label for=brief>without details</label>";
  for (std::size_t i = 0; i < programs_.size() && programs_.size() > 1; ++i) {
    const std::string id = std::string("p").append(std::to_string(i));
    rules.append("#").append(id).append(":not(:checked)~main .").append(id).append("{display:none}\n");
    boxes.append("<input type=checkbox checked id=").append(id).append("><label for=").append(id).append(">");
    boxes.append(escaped(programs_[i])).append("</label>");
  }
  return "<style>\n" + rules + "</style>\n" + boxes + "<input id=search type=search placeholder=search hidden>\n";
}

std::string ReportPage::finish() {
  std::string page = std::string(head) + "</style></head><body>\n<h1>Tavrin report</h1>\n<p class=soft>Made on " +
                     today() + " by tavrin-tool " + TAVRIN_VERSION +
                     (hidesNames_ ? "; labels, names, serial numbers and digests are left out" : "") +
                     ". It holds no passwords.</p>\n<h2>Findings</h2>\n";
  if (status_.problems.empty() && status_.warnings.empty()) {
    page += "<p class=fine>All is well.</p>\n";
  } else {
    page += "<ul>\n";
    appendFindings(page, status_.problems);
    appendFindings(page, status_.warnings);
    page += "</ul>\n";
  }
  page +=
      "<h2>Module and tokens</h2>\n<pre>" + escapedLines(textReport(status_)) + "</pre>\n<h2>Refusals</h2>\n" +
      explanations() + "<h2>Timeline</h2>\n<p class=soft>" + std::to_string(calls_) +
      " calls in the order in which they began. The log holds no process or thread numbers: lines of calls that ran at "
      "the same time may be shown with the later call.</p>\n" +
      filters() + "<main>\n";
  page += timeline_;
  return page + "</main>\n" + script + "</body></html>\n";
}

}  // namespace tool
