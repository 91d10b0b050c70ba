#include "common/logging.hpp"
#include "common/paths.hpp"
#include "rules/rules.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>
#include <utility>

namespace hwtopod::rules
{

namespace
{
// Writes a new file and waits until it is on storage: renamed over the old
// one before that, a power cut could leave an empty file in its place.
bool writeToStorage(const std::filesystem::path& path, const std::string& text)
{
    const int fd =
        ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0)
    {
        return false;
    }
    bool good = true;
    for (std::size_t done = 0; good && done < text.size();)
    {
        const ssize_t count =
            ::write(fd, text.data() + done, text.size() - done);
        if (count < 0 && errno == EINTR)
        {
            continue;
        }
        good = count > 0;
        done += good ? static_cast<std::size_t>(count) : 0;
    }
    good = good && ::fsync(fd) == 0;
    return ::close(fd) == 0 && good;
}

// The rename is on storage once its directory is. A file system that cannot
// sync a directory still has the new file whole, so a failure is not reported.
void syncDirectory(const std::filesystem::path& directory)
{
    const int fd =
        ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0)
    {
        ::fsync(fd);
        ::close(fd);
    }
}
} // namespace

void appendFound(nlohmann::json& document, const std::string& key,
                 nlohmann::json record)
{
    document[key].push_back(std::move(record));
}

std::string foundHardwareText(const nlohmann::json& document)
{
    // Objects keep their keys sorted. Text that is no valid UTF-8 (VPD bytes
    // taken for a string) is written with replacement characters rather than
    // not at all.
    return document.dump(4, ' ', false,
                         nlohmann::json::error_handler_t::replace);
}

namespace
{
// Writes the new file beside the old one and renames it into place, once it
// is on storage. Leaves no temporary file behind on failure.
bool replaceFile(const std::filesystem::path& target, const std::string& text)
{
    // A name of our own in the target's directory: rename() then replaces
    // the file in one step, and two writers never share a temporary file.
    std::filesystem::path temporary = target;
    temporary += ".tmp." + std::to_string(::getpid());
    bool written = writeToStorage(temporary, text);
    if (written)
    {
        std::error_code error;
        std::filesystem::rename(temporary, target, error);
        written = !error;
    }
    if (!written)
    {
        std::error_code ignored;
        std::filesystem::remove(temporary, ignored);
    }
    return written;
}

void cannotWrite(const std::string& logicalPath)
{
    logWarning() << "hwtopod cannot write data at " << logicalPath;
}
} // namespace

bool saveFoundHardware(const Root& root, const nlohmann::json& document,
                       const std::string& logicalPath,
                       std::string_view startMessage)
{
    if (!startMessage.empty())
    {
        logInfo() << startMessage;
    }
    bool written = false;
    try
    {
        const std::filesystem::path target = root.path(logicalPath);
        written = replaceFile(target, foundHardwareText(document));
        if (written)
        {
            syncDirectory(target.parent_path());
        }
    }
    catch (const std::exception&)
    {
        written = false;
    }
    if (!written)
    {
        cannotWrite(logicalPath);
    }
    return written;
}

FoundHardwareWriter::~FoundHardwareWriter()
{
    try
    {
        finish();
    }
    catch (const std::exception& e)
    {
        // Only a failed allocation gets here; the files written so far are
        // whole either way.
        logCritical() << "Exception in saving found hardware: " << e.what();
    }
}

void FoundHardwareWriter::save(const Root& root, const nlohmann::json& document,
                               const std::string& logicalPath,
                               std::string_view startMessage)
{
    if (!startMessage.empty())
    {
        logInfo() << startMessage;
    }
    // The text is taken now: the document goes on growing on this thread.
    std::filesystem::path target;
    std::string text;
    try
    {
        target = root.path(logicalPath);
        text = foundHardwareText(document);
    }
    catch (const std::exception&)
    {
        cannotWrite(logicalPath);
        return;
    }
    writer.post([this, logicalPath, target = std::move(target),
                 text = std::move(text)]() {
        bool written = false;
        try
        {
            written = replaceFile(target, text);
            if (written)
            {
                directories.insert(target.parent_path());
            }
        }
        catch (const std::exception&)
        {
            written = false;
        }
        if (!written)
        {
            cannotWrite(logicalPath);
        }
    });
}

void FoundHardwareWriter::finish()
{
    writer.run([this]() {
        for (const auto& directory : std::exchange(directories, {}))
        {
            syncDirectory(directory);
        }
    });
}

} // namespace hwtopod::rules
