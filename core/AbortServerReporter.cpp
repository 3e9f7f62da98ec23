#include "core/AbortServerReporter.h"

#include <cstdio>
#include <ctime>
#include <filesystem>

#include "core/Clock.h"
#include "core/Message.h"

namespace Corvo::Core {

std::vector<std::string> AbortServerReporter::header() const {
  std::vector<std::string> lines;
  lines.push_back(title());
  // The notice is written as two lines; a one-line notice is followed by an empty line so
  // the header always has the same shape.
  std::string n = notice();
  size_t nl = n.find('\n');
  lines.push_back(n.substr(0, nl));
  lines.push_back(nl == std::string::npos ? std::string() : n.substr(nl + 1));
  lines.push_back("Error generated at " + localTimeStamp());
  lines.push_back("");
  return lines;
}

std::vector<std::string> AbortServerReporter::errorFileFolders() const { return {""}; }

std::string AbortServerReporter::writeErrorFile(const Error& error) const {
  for (const std::string& folder : errorFileFolders()) {
    std::filesystem::path path;
    std::error_code ec;
    if (folder.empty())
      path = std::filesystem::current_path(ec) / errorFileName();
    else
      path = std::filesystem::path(folder) / errorFileName();
    if (ec) path = errorFileName();
    FILE* f = std::fopen(path.string().c_str(), "w");
    if (!f) continue;
    bool ok = true;
    for (const std::string& line : header()) ok = ok && std::fprintf(f, "%s\n", line.c_str()) >= 0;
    ok = ok && std::fputs(error.report().c_str(), f) >= 0;
    ok = (std::fclose(f) == 0) && ok;
    if (ok) return path.string();
  }
  return {};
}

void AbortServerReporter::announce(const Error& error, const std::string& path) const {
  if (path.empty())
    message(mkError, "\nUnable to complete command! -- %s\n%s", error.text().c_str(), error.report().c_str());
  else
    message(mkError, "\nUnable to complete command! See error file %s\n", path.c_str());
}

int AbortServerReporter::handle(const Error& error) {
  std::fflush(stdout);
  announce(error, writeErrorFile(error));
  std::fflush(stdout);
  return exitCode();
}

}  // namespace Corvo::Core
