#include "tools/check.h"

#include <sys/stat.h>

#include "platform/xml/www_document.h"
#include "tools/json.h"
#include "tools/units.h"
#include "tools/verbs/verbs.h"

namespace tool::verbs {

namespace {

// Where the documents are when the system was installed beside others, and only its programs see them where they
// belong.
constexpr std::string_view installedDirectory = "/etc/tarn/www";

bool isDirectory(const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

std::string jsonOf(const Finding& finding) {
  std::string out =
      finding.gravity == Finding::Gravity::error ? R"({"gravity":"error","file":)" : R"({"gravity":"warning","file":)";
  appendJsonText(out, finding.file);
  out.append(",\"line\":").append(decimal(finding.line)).append(",\"column\":").append(decimal(finding.column));
  out += ",\"found\":";
  appendJsonText(out, finding.found);
  out += ",\"expected\":";
  appendJsonText(out, finding.expected);
  return out + "}\n";
}

// The word that says how grave it is stands out on a terminal.
std::string coloured(const Finding& finding) {
  std::string line = tn::printableText(finding.text());
  const bool isError = finding.gravity == Finding::Gravity::error;
  const std::string_view word = isError ? "error" : "warning";
  const std::size_t at = line.find(std::string(": ").append(word).append(": "));
  line.insert(at + 2 + word.size(), "\x1b[0m");
  line.insert(at + 2, isError ? "\x1b[1;31m" : "\x1b[1;33m");
  return line;
}

}  // namespace

ExitStatus check(Context& context) {
  Checker checker;
  std::vector<std::string_view> operands = context.arguments().operands;
  if (operands.empty()) {
    const bool isInstalled = !isDirectory(xml::www::directory) && isDirectory(std::string(installedDirectory));
    operands.push_back(isInstalled ? installedDirectory : xml::www::directory);
  }
  for (const std::string_view operand : operands) {
    const std::string path(operand);
    if (isDirectory(path)) {
      checker.checkDirectory(path);
    } else {
      checker.checkFile(path);
    }
  }
  Output& out = context.output();
  for (const Finding& finding : checker.findings()) {
    const std::string line = out.form() == Form::json ? jsonOf(finding)
                             : out.colours()          ? coloured(finding) + '\n'
                                                      : tn::printableText(finding.text()) + '\n';
    if (!out.print(line)) break;
  }
  const std::size_t errors = checker.errors();
  if (out.isReadable()) {
    out.print(decimal(checker.documents()) + " documents, " + decimal(checker.servers()) + " servers, " +
              decimal(errors) + " errors, " + decimal(checker.findings().size() - errors) + " warnings\n");
  }
  return errors == 0 ? ExitStatus::done : ExitStatus::refused;
}

}  // namespace tool::verbs
