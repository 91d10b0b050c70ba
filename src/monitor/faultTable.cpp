#include "faultTable.hpp"

#include <array>
#include <string_view>

namespace hwtopod
{

namespace
{
constexpr std::uint8_t noCpu = noCpuIndex;

// fpgaDevice, lineName, eventId, deviceName, deviceClass, index, monitored,
// block, offset, bit, activeLevel, deassertEventId.
// clang-format off
constexpr auto rows = std::to_array<FpgaGpioEntry>({
    {0, "HPM_SCM_STBY_RDY", "TKRMBPW0133N", "", "", noCpu, true, 22, 10, 1, false, ""}, // 0
    {1, "VR_FAULT_1_N", "TKRMBPW0129N", "PVCCFA_EHV", "CPU", 1, true, 4, 1, 0, true, ""}, // 1
    {1, "VR_FAULT_2_N", "TKRMBPW0129N", "PVNN_MAC", "CPU", 1, true, 4, 1, 1, true, ""}, // 2
    {1, "VR_FAULT_3_N", "TKRMBPW0131N", "12V_PCIE_PWR1", "Peripheral", noCpu, true, 4, 1, 2, true, ""}, // 3
    {1, "VR_FAULT_4_N", "TKRMBPW0131N", "12V_PCIE_PWR2", "Peripheral", noCpu, true, 4, 1, 3, true, ""}, // 4
    {1, "VR_FAULT_5_N", "TKRMBPW0131N", "12V_PCIE_PWR3", "Peripheral", noCpu, true, 4, 1, 4, true, ""}, // 5
    {1, "VR_FAULT_6_N", "TKRMBPW0131N", "12V_PCIE_PWR4", "Peripheral", noCpu, true, 4, 1, 5, true, ""}, // 6
    {1, "VR_FAULT_7_N", "TKRMBPW0131N", "12V_PCIE_PWR9", "Peripheral", noCpu, true, 4, 1, 6, true, ""}, // 7
    {1, "VR_FAULT_8_N", "TKRMBPW0131N", "12V_PCIE_PWR10", "Peripheral", noCpu, true, 4, 1, 7, true, ""}, // 8
    {1, "VR_FAULT_9_N", "TKRMBPW0131N", "12V_PCIE_PWR11", "Peripheral", noCpu, true, 4, 2, 0, true, ""}, // 9
    {1, "VR_FAULT_10_N", "TKRMBPW0131N", "12V_PCIE_PWR12", "Peripheral", noCpu, true, 4, 2, 1, true, ""}, // 10
    {1, "VR_FAULT_11_N", "TKRMBPW0131N", "12V_PCIE_PWR13", "Peripheral", noCpu, true, 4, 2, 2, true, ""}, // 11
    {1, "VR_FAULT_12_N", "TKRMBPW0131N", "12V_PCIE_PWR14", "Peripheral", noCpu, true, 4, 2, 3, true, ""}, // 12
    {1, "VR_FAULT_13_N", "TKRMBPW0131N", "12V_PCIE_PWR15", "Peripheral", noCpu, true, 4, 2, 4, true, ""}, // 13
    {1, "VR_FAULT_14_N", "TKRMBPW0131N", "12V_PCIE_PWR20", "Peripheral", noCpu, true, 4, 2, 5, true, ""}, // 14
    {1, "VR_FAULT_15_N", "TKRMBPW0131N", "12V_PCIE_PWR21", "Peripheral", noCpu, true, 4, 2, 6, true, ""}, // 15
    {1, "VR_FAULT_16_N", "TKRMBPW0131N", "12V_PCIE_PWR22", "Peripheral", noCpu, true, 4, 2, 7, true, ""}, // 16
    {1, "VR_FAULT_17_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 3, 0, true, ""}, // 17
    {1, "VR_FAULT_18_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 3, 1, true, ""}, // 18
    {1, "VR_FAULT_19_N", "TKRMBPW0129N", "P12V_MEM", "CPU", 1, true, 4, 3, 2, true, ""}, // 19
    {1, "VR_FAULT_20_N", "TKRMBPW0129N", "P12V_MEM", "CPU", 2, true, 4, 3, 3, true, ""}, // 20
    {1, "VR_FAULT_21_N", "TKRMBPW0131N", "", "Peripheral", 1, false, 4, 3, 4, true, ""}, // 21
    {1, "VR_FAULT_22_N", "TKRMBPW0129N", "PVCCFA_EHV", "CPU", 2, true, 4, 3, 5, true, ""}, // 22
    {1, "VR_FAULT_23_N", "TKRMBPW0129N", "PVNN_MAC", "CPU", 2, true, 4, 3, 6, true, ""}, // 23
    {1, "VR_FAULT_24_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 3, 7, true, ""}, // 24
    {1, "VR_FAULT_25_N", "TKRMBPW0129N", "PVCCD_HV0", "CPU", 1, true, 4, 4, 0, true, ""}, // 25
    {1, "VR_FAULT_26_N", "TKRMBPW0129N", "PVCCD_HV1", "CPU", 1, true, 4, 4, 1, true, ""}, // 26
    {1, "VR_FAULT_27_N", "TKRMBPW0129N", "PVCCD_HV0", "CPU", 2, true, 4, 4, 2, true, ""}, // 27
    {1, "VR_FAULT_28_N", "TKRMBPW0129N", "PVCCD_HV1", "CPU", 2, true, 4, 4, 3, true, ""}, // 28
    {1, "VR_FAULT_29_N", "TKRMBPW0129N", "PVCCFA_EHV_FIVRA", "CPU", 1, true, 4, 4, 4, true, ""}, // 29
    {1, "VR_FAULT_30_N", "TKRMBPW0129N", "PVCCFA_EHV_FIVRA", "CPU", 2, true, 4, 4, 5, true, ""}, // 30
    {1, "VR_FAULT_31_N", "TKRMBPW0129N", "PVCCINF", "CPU", 1, true, 4, 4, 6, true, ""}, // 31
    {1, "VR_FAULT_32_N", "TKRMBPW0129N", "PVCCINF", "CPU", 2, true, 4, 4, 7, true, ""}, // 32
    {1, "VR_FAULT_33_N", "TKRMBPW0129N", "PVCC", "CPU", 1, true, 4, 5, 0, true, ""}, // 33
    {1, "VR_FAULT_34_N", "TKRMBPW0129N", "PVCC", "CPU", 2, true, 4, 5, 1, true, ""}, // 34
    {1, "VR_FAULT_43_N", "TKRMBPW0131N", "OCP slot 1", "Peripheral", noCpu, true, 4, 6, 2, true, ""}, // 35
    {1, "VR_FAULT_44_N", "TKRMBPW0131N", "OCP slot 2", "Peripheral", noCpu, true, 4, 6, 3, true, ""}, // 36
    {1, "VR_FAULT_45_N", "TKRMBPW0131N", "THERMTRIP", "CPU", 1, false, 4, 6, 4, true, ""}, // 37
    {1, "VR_FAULT_46_N", "TKRMBPW0131N", "THERMTRIP", "CPU", 2, false, 4, 6, 5, true, ""}, // 38
    {1, "VR_FAULT_47_N", "TKRMBPW0131N", "MEMTRIP", "CPU", 1, false, 4, 6, 6, true, ""}, // 39
    {1, "VR_FAULT_48_N", "TKRMBPW0131N", "MEMTRIP", "CPU", 2, false, 4, 6, 7, true, ""}, // 40
    {1, "VR_FAULT_49_N", "TKRMBPW0131N", "12V_PCIE_PWR23", "Peripheral", noCpu, true, 4, 7, 0, true, ""}, // 41
    {1, "VR_FAULT_50_N", "TKRMBPW0131N", "CFF_PWR", "Peripheral", noCpu, true, 4, 7, 1, true, ""}, // 42
    {1, "VR_FAULT_51_N", "TKRMBPW0131N", "Front Panel", "Peripheral", noCpu, true, 4, 7, 2, true, ""}, // 43
    {1, "VR_FAULT_53_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 7, 4, true, ""}, // 44
    {1, "VR_FAULT_54_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 7, 5, true, ""}, // 45
    {1, "VR_FAULT_55_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 7, 6, true, ""}, // 46
    {1, "VR_FAULT_56_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 7, 7, true, ""}, // 47
    {1, "VR_FAULT_57_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 8, 0, true, ""}, // 48
    {1, "VR_FAULT_58_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 8, 1, true, ""}, // 49
    {1, "VR_FAULT_59_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 8, 2, true, ""}, // 50
    {1, "VR_FAULT_60_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 8, 3, true, ""}, // 51
    {1, "VR_FAULT_61_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 8, 4, true, ""}, // 52
    {1, "VR_FAULT_62_N", "TKRMBPW0131N", "", "Peripheral", noCpu, false, 4, 8, 5, true, ""}, // 53
    {1, "VR_FAULT_63_N", "TKRMBPW0132N", "GroupA", "FAN", noCpu, true, 4, 8, 6, true, ""}, // 54
    {1, "VR_FAULT_64_N", "TKRMBPW0132N", "GroupB", "FAN", noCpu, true, 4, 8, 7, true, ""}, // 55
    {1, "CONN9_BP_PG", "TKRMBPW0131N", "BP_PWR9", "Peripheral", noCpu, true, 5, 1, 0, true, ""}, // 56
    {1, "CONN10_BP_PG", "TKRMBPW0131N", "BP_PWR10", "Peripheral", noCpu, true, 5, 1, 1, true, ""}, // 57
    {1, "CONN11_BP_PG", "TKRMBPW0131N", "BP_PWR11", "Peripheral", noCpu, true, 5, 1, 2, true, ""}, // 58
    {1, "CONN21_BP_PG", "TKRMBPW0131N", "BP_PWR21", "Peripheral", noCpu, true, 5, 1, 3, true, ""}, // 59
    {1, "CONN20_BP_PG", "TKRMBPW0131N", "BP_PWR20", "Peripheral", noCpu, true, 5, 1, 4, true, ""}, // 60
    {1, "CONN22_BP_PG", "TKRMBPW0131N", "BP_PWR22", "Peripheral", noCpu, true, 5, 1, 5, true, ""}, // 61
    {1, "CONN23_BP_PG", "TKRMBPW0131N", "BP_PWR23", "Peripheral", noCpu, true, 5, 1, 6, true, ""}, // 62
    {1, "CONN12_BP_PG", "TKRMBPW0131N", "BP_PWR12", "Peripheral", noCpu, true, 5, 2, 0, true, ""}, // 63
    {1, "CONN13_BP_PG", "TKRMBPW0131N", "BP_PWR13", "Peripheral", noCpu, true, 5, 2, 1, true, ""}, // 64
    {1, "CONN14_BP_PG", "TKRMBPW0131N", "BP_PWR14", "Peripheral", noCpu, true, 5, 2, 2, true, ""}, // 65
    {1, "CONN15_BP_PG", "TKRMBPW0131N", "BP_PWR15", "Peripheral", noCpu, true, 5, 2, 3, true, ""}, // 66
    {1, "CONN4_BP_PG", "TKRMBPW0131N", "BP_PWR4", "Peripheral", noCpu, true, 5, 2, 4, true, ""}, // 67
    {1, "CONN3_BP_PG", "TKRMBPW0131N", "BP_PWR3", "Peripheral", noCpu, true, 5, 2, 5, true, ""}, // 68
    {1, "CONN2_BP_PG", "TKRMBPW0131N", "BP_PWR2", "Peripheral", noCpu, true, 5, 2, 6, true, ""}, // 69
    {1, "CONN1_BP_PG", "TKRMBPW0131N", "BP_PWR1", "Peripheral", noCpu, true, 5, 2, 7, true, ""}, // 70
    {1, "CPU1_THERMTRIP", "TKRMBPU0001N", "", "", 1, true, 14, 1, 0, true, "TKRMBPU2001I"}, // 71
    {1, "CPU2_THERMTRIP", "TKRMBPU0001N", "", "", 2, true, 14, 1, 1, true, "TKRMBPU2001I"}, // 72
});
// clang-format on
static_assert(rows.size() == 73);

constexpr bool withinRegisterSpace()
{
    for (const auto& row : rows)
    {
        if (row.block > 63 || row.offset > 15 || row.bit > 7)
        {
            return false;
        }
    }
    return true;
}
static_assert(withinRegisterSpace());

// An edge finds its row by the line name: a second row of a name would never
// be reached.
constexpr bool lineNamesUnique()
{
    for (std::size_t i = 0; i < rows.size(); ++i)
    {
        for (std::size_t j = 0; j < i; ++j)
        {
            if (std::string_view(rows[i].lineName) == rows[j].lineName)
            {
                return false;
            }
        }
    }
    return true;
}
static_assert(lineNamesUnique());
} // namespace

const std::vector<FpgaGpioEntry>& fpgaGpioTable()
{
    // A copy of the constant rows, made once and never changed.
    static const std::vector<FpgaGpioEntry> table(rows.begin(), rows.end());
    return table;
}

} // namespace hwtopod
