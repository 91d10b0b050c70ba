#pragma once

// Rule files and result files: loading a rule file, composing a hardware
// record from a rule's template, a topology entry's Properties and a VPD
// object, and writing a found-hardware document.

#include "common/paths.hpp"
#include "common/types.hpp"
#include "common/worker.hpp"
#include "rules/matcher.hpp"
#include "rules/vpdValue.hpp"

#include <nlohmann/json.hpp>

#include <filesystem>
#include <functional>
#include <memory>
#include <set>
#include <string>
#include <string_view>

namespace hwtopod::rules
{

// ---- Rule files ----------------------------------------------------------

// What the top level of a rule file must be.
enum class TopLevel
{
    any,
    object,
    array,
};

// True when the file at the logical path cannot be found: its status is
// not-found or cannot be had. An empty path is always missing. Directories
// and other file types count as present (and then fail to parse).
bool ruleFileMissing(const Root& root, const std::string& logicalPath);

// Parses the JSON file at the logical path, placed below root.
// Throws std::runtime_error when it cannot be opened or read,
// nlohmann::json::parse_error when it is no JSON, std::runtime_error when
// its top level is not of the expected kind.
nlohmann::json parseRuleFile(const Root& root, const std::string& logicalPath,
                             TopLevel expected);

// One stage of loading the rule files, with its messages:
//  - missing file: WARNING "[STATE0] CANNOT FIND THE JSON <name>, PATH = "
//    and the path;
//  - any failure to read or parse it, or a top level of another kind:
//    CRITICAL "Exception in loadTrd : <name> " and the exception's text.
// Returns the parsed document, or null when there is none. Never throws.
std::shared_ptr<nlohmann::json> loadRuleFile(
    const Root& root, std::string_view name, const std::string& logicalPath,
    TopLevel expected);

// ---- Record composition --------------------------------------------------

// How composition reports what it does. Each callback may be empty. The
// factories below give the three wordings in use.
struct CompositionLog
{
    // Before a Properties key k is placed: placeholder is "$k".
    std::function<void(const std::string& placeholder, const std::string& key)>
        beforeProperty;
    // A template value equal to the placeholder was replaced by value.
    std::function<void(const std::string& placeholder,
                       const nlohmann::json& value)>
        placeholderReplaced;
    // All Properties have been placed.
    std::function<void()> afterProperties;
    // A VPD reference was resolved from the VPD object.
    std::function<void(const std::string& propertyName)> vpdFound;
    // A VPD reference names no property of the VPD object.
    std::function<void(const std::string& propertyName)> vpdMissing;
};

// Static probes: INFO "[STATE] placeholder $k <sectionKey> k" per Properties
// key and "[STATE] propertyName <name>" per resolved VPD reference.
// sectionKey is "bpKey", "riserKey" or "midplaneKey". The lines go into sink
// when one is given, else to the log; so for the two below.
CompositionLog staticProbeLog(std::string_view sectionKey,
                              MatchLines* sink = nullptr);

// Dynamic backplane probe: "Update BP instance key $k => <value>",
// "Update BP instance based on VPDD", "Unable to find propertyName <name>".
CompositionLog dynamicBackplaneLog(MatchLines* sink = nullptr);

// Dynamic riser probe: "Update Riser instance key $k => <value>",
// "Update riser instance based on VPDD", "Unable to find propertyName <name>".
CompositionLog dynamicRiserLog(MatchLines* sink = nullptr);

// The start of a record: a copy of rule[templateKey] when the rule is an
// object holding that key, else JSON null.
nlohmann::json recordTemplate(const nlohmann::json& rule,
                              std::string_view templateKey);

// Fills record in two passes.
//  1. For each key k of properties in sorted order: the first value of record
//     (in sorted key order) that is the string "$k" is replaced by the value
//     of k; when there is none, record[k] is set to it.
//  2. Every string value of record that holds a '$' anywhere is a VPD
//     reference: its first character is dropped and the rest is looked up in
//     vpd. A property found replaces the string with a JSON value of its
//     kind; a missing one leaves the string as it is.
// properties that is not an object places nothing. A record that is neither
// null nor an object (a template of another kind) throws the JSON library's
// type error.
void fillRecord(nlohmann::json& record, const nlohmann::json& properties,
                const VpdProperties& vpd, const CompositionLog& log);

// recordTemplate + fillRecord with entry["Properties"] (absent: none).
nlohmann::json composeRecord(
    const nlohmann::json& rule, std::string_view templateKey,
    const nlohmann::json& entry, const VpdProperties& vpd,
    const CompositionLog& log);

// ---- Found-hardware documents --------------------------------------------

inline constexpr const char* backplanesFoundFile =
    "/var/configuration/backplanes_found.json";
inline constexpr const char* risersFoundFile =
    "/var/configuration/risers_found.json";
inline constexpr const char* midplanesFoundFile =
    "/var/configuration/midplanes_found.json";

// Appends record to the array under key of document; a null document becomes
// {key: [record]}. Throws nlohmann::json::type_error when document is of
// another shape.
void appendFound(nlohmann::json& document, const std::string& key,
                 nlohmann::json record);

// The text of a result file: indent 4, keys sorted, non-ASCII as it stands,
// no line end after the closing brace.
std::string foundHardwareText(const nlohmann::json& document);

// Logs INFO startMessage (when not empty), then writes the document to the
// logical path (placed below root) through a temporary file in the
// same directory and a rename, so that a reader sees the old file or the new
// one, never half of one. On failure logs WARNING
// "hwtopod cannot write data at " and the logical path, and returns false;
// the document is not touched either way. Never throws.
bool saveFoundHardware(const Root& root, const nlohmann::json& document,
                       const std::string& logicalPath,
                       std::string_view startMessage);

// The found-hardware writes of a whole discovery, made as saveFoundHardware
// makes them but by a thread of its own, in the order saved, so that the
// caller goes on to its next board (and its next wait on a peer) while a
// file is synced. Each new file is on storage before it replaces the old
// one, so a power cut leaves the old file or the new one, whole. The
// renames are on storage, by one sync of their directory after the last,
// once finish() has returned; the destructor finishes too.
class FoundHardwareWriter
{
  public:
    FoundHardwareWriter() : writer("results") {}
    ~FoundHardwareWriter();
    FoundHardwareWriter(const FoundHardwareWriter&) = delete;
    FoundHardwareWriter& operator=(const FoundHardwareWriter&) = delete;
    FoundHardwareWriter(FoundHardwareWriter&&) = delete;
    FoundHardwareWriter& operator=(FoundHardwareWriter&&) = delete;

    // Logs startMessage and takes the document's text at once; the
    // warning of a failed write comes later, from the writer's thread.
    void save(const Root& root, const nlohmann::json& document,
              const std::string& logicalPath, std::string_view startMessage);
    void finish();

  private:
    // Directories with a rename not yet synced; the writer's thread alone
    // touches them.
    std::set<std::filesystem::path> directories;
    // Last, so that its thread ends before the members it uses.
    Worker writer;
};

} // namespace hwtopod::rules
