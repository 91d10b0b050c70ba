// /etc/os-release: the build identifier and the MiniVersion made from it.

#include "fuzzSupport.hpp"
#include "platforms/platformInfo.hpp"

#include <cstdlib>

using hwtopod::fuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes,
                                      std::size_t size)
{
    const hwtopod::Root root = hwtopod::fuzz::sandboxRoot();
    FuzzedDataProvider data(bytes, size);
    const std::string templateVersion = data.ConsumeRandomLengthString(8);
    hwtopod::fuzz::writeSandboxFile("/etc/os-release",
                                    data.ConsumeRemainingBytesAsString());

    const std::string buildId = Platform::readBuildId(root);
    check(buildId.find('\n') == std::string::npos);

    // The machine's template gives 00W for an even build, else 01W.
    const std::string machine = Platform::miniVersionFor("01W", buildId);
    check(machine == "00W" || machine == "01W");
    const bool even =
        buildId.size() >= 7 &&
        std::string_view("02468").find(buildId[5]) != std::string_view::npos;
    check(machine == (even ? "00W" : "01W"));

    // Any template: at least two digits and the letter.
    const std::string version =
        Platform::miniVersionFor(templateVersion, buildId);
    check(version.size() >= 3);
    return 0;
}
