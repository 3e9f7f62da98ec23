#include "filesystem/Formatter.h"

#include <memory>

#include "filesystem/ext2/Ext2.h"
#include "filesystem/fat/Fat.h"
#include "filesystem/ntfs/Ntfs.h"

namespace Corvo::Filesystem {

using Disk::FormatKind;

namespace {

// The registry: one line per formatter.
const std::unique_ptr<const Formatter> kFormatters[] = {
    std::make_unique<FormatterOf<FormatOptions>>(FormatKind::FatFull, fatLabelProblem, formatFatPartition),
    std::make_unique<FormatterOf<FormatOptions>>(FormatKind::FatQuick, fatLabelProblem, formatFatPartition),
    std::make_unique<FormatterOf<NtfsFormatOptions>>(FormatKind::Ntfs, ntfsLabelProblem, formatNtfs),
    std::make_unique<FormatterOf<Ext2FormatOptions>>(FormatKind::Ext2, ext2LabelProblem, formatExt2),
};

}  // namespace

const Formatter* formatterFor(FormatKind kind) {
  for (const auto& f : kFormatters)
    if (f->kind() == kind) return f.get();
  return nullptr;
}

std::optional<uint64_t> FormatSummary::countOf(const std::string& text) const {
  for (const Line& line : lines)
    if (line.count && line.text == text) return line.count;
  return std::nullopt;
}

Core::Error stepError(const char* step, const Core::Error& cause, std::optional<Core::ErrorId> id) {
  Core::Error error(id.value_or(cause.id()), cause.text(), cause.properties());
  return error.with("step", step);
}

}  // namespace Corvo::Filesystem
