// How a frame of a stack is written. No frame of the product has a module, so this test compiles the product's source
// and makes some that do.
#include "WindowsDriverInstaller/reports/StackDump.cpp"  // NOLINT(bugprone-suspicious-include): see above

#include <gtest/gtest.h>

namespace {

class MadeFrame : public wxStackFrame {
public:
    MadeFrame(std::size_t level, const wxString &module, const wxString &name, std::size_t offset)
        : wxStackFrame(level, reinterpret_cast<void *>(0x1234), 0) {
        m_module = module;
        m_name = name;
        m_offset = offset;
    }

protected:
    void OnGetName() override {}
};

class MadeDump : public StackDump {
public:
    using StackDump::OnStackFrame;
};

TEST(StackFrameText, ConsistsOfLevelModuleAndNameOrAddress) {
    MadeDump dump;
    dump.OnStackFrame(MadeFrame(0, "", "Work", 20));
    dump.OnStackFrame(MadeFrame(1, "one.dll", "Work", 0));
    dump.OnStackFrame(MadeFrame(12, "two.dll", "", 0));
    dump.OnStackFrame(MadeFrame(100, "", "", 0));
    EXPECT_EQ(dump.Text().utf8_string(),
              "[00] Work+20\n[01] one.dll:Work+0\n[12] two.dll:0000000000001234\n[100] 0000000000001234");
}

}  // namespace
