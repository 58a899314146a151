#include "DiagnosticsFixture.h"

#include <algorithm>
#include <memory>

#include <wx/zipstrm.h>

#include "SLB3.h"
#include "slb3_control.h"

namespace {

void PushHandle(lua_State *L, vti_handle_t *handle) {
    *static_cast<vti_handle_t **>(lua_newuserdata(L, sizeof(void *))) = handle;
    luaL_newmetatable(L, "vti_handle_t*");
    lua_setmetatable(L, -2);
}

std::string ReadAll(wxInputStream &in) {
    wxMemoryOutputStream out;
    in.Read(out);
    std::string content(out.GetSize(), '\0');
    out.CopyTo(content.data(), content.size());
    return content;
}

}  // namespace

Package::Package(const wxMemoryOutputStream &zip) {
    wxMemoryInputStream memory(zip);
    wxZipInputStream in(memory);
    for (std::unique_ptr<wxZipEntry> entry(in.GetNextEntry()); entry; entry.reset(in.GetNextEntry()))
        m_files.push_back(
            {entry->GetName().utf8_string(), ReadAll(in), entry->GetComment().utf8_string(), entry->IsText()});
}

std::vector<std::string> Package::Names() const {
    std::vector<std::string> names;
    for (const PackedFile &file : m_files)
        names.push_back(file.name);
    return names;
}

bool Package::Has(const std::string &name) const {
    return std::any_of(m_files.begin(), m_files.end(), [&](const PackedFile &file) { return file.name == name; });
}

std::string Package::Content(const std::string &name) const {
    for (const PackedFile &file : m_files)
        if (file.name == name)
            return file.content;
    ADD_FAILURE() << "there is no " << name;
    return {};
}

DiagnosticsFixture::DiagnosticsFixture() : handle(nullptr) {
    Vti::Reset();
    FillDriver();
    handle = vti_open();
    SLB3::Control::PushInstance(lua, "SLB.Dom", &dom);
    lua_setglobal(lua, "dom");
    PushHandle(lua, handle);
    lua_setglobal(lua, "handle");
    lua.Run("f = SLB.filter");
    (void)VtaCore::Control::TakeTraces();
    (void)VtaCore::Control::TakeEvents();
}

DiagnosticsFixture::~DiagnosticsFixture() {
    VtaCore::Control::EnableTrace("*", false);
    (void)VtaCore::Control::TakeTraces();
    (void)VtaCore::Control::TakeEvents();
    vti_close(handle);
    Vti::Reset();
}

void DiagnosticsFixture::FillDriver() {
    driver().udp = {ConnectionOf(1), ConnectionOf(2)};
    driver().tcp = {ConnectionOf(3), ConnectionOf(4), ConnectionOf(5)};
    driver().blacklist = BytesOf(300);
    driver().profile = BytesOf(5000);
    for (unsigned i = 0; i < driver().variables.size(); ++i)
        driver().variables[i] = i * 1000;
}

Package DiagnosticsFixture::Run() {
    wxMemoryOutputStream memory;
    {
        VtaCore::Control::ZipPackage zip(memory);
        RunOn(zip);
        EXPECT_TRUE(zip.Close());
    }
    return Package(memory);
}

void DiagnosticsFixture::RunOn(VtaCore::CZipOutputStream &zip) {
    SLB3::Control::PushInstance(lua, "SLB.wx.ZipOutputStream", &zip);
    lua_setglobal(lua, "zip");
    driver().calls.clear();
    lua.Run(
        "local results = table.pack(f.AddDriverDiagnostics(dom, handle, zip)) "
        "assert(results.n == 1 and results[1] == true)");
    calls.swap(driver().calls);
    driver().calls.clear();
    lua.Run("zip = nil");
}

std::vector<std::string> DiagnosticsFixture::TakeEvents() {
    std::vector<std::string> events;
    for (const VtaCore::Control::Event &event : VtaCore::Control::TakeEvents())
        events.push_back(std::to_string(event.number) + " " + event.text.utf8_string());
    return events;
}

std::vector<std::string> DiagnosticsFixture::TakeEventFormats() {
    std::vector<std::string> formats;
    for (const VtaCore::Control::Event &event : VtaCore::Control::TakeEvents())
        formats.push_back(event.format.utf8_string());
    return formats;
}

std::vector<std::string> CallsOf(const std::vector<std::string> &calls, const std::string &beginning) {
    std::vector<std::string> found;
    for (const std::string &call : calls)
        if (call.starts_with(beginning))
            found.push_back(call);
    return found;
}

Vti::Connection ConnectionOf(unsigned number) {
    Vti::Connection connection;
    for (unsigned i = 0; i < connection.bytes.size(); ++i)
        connection.bytes[i] = static_cast<uint8_t>((number >> (i % 4 * 8)) + i / 4);
    return connection;
}

std::vector<uint8_t> BytesOf(std::size_t size) {
    std::vector<uint8_t> bytes(size);
    for (std::size_t i = 0; i < size; ++i)
        bytes[i] = static_cast<uint8_t>(i * 7 + i / 256);
    return bytes;
}
