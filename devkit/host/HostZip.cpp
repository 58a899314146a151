// Diagnostic packages, for scripts.
#include "HostState.h"

#include <wx/mstream.h>

#include "LuaEdge.h"
#include "Text.h"
#include "slb3_control.h"

namespace {

constexpr const char *kZipTypeName = "SLB.wx.ZipOutputStream";

/// Opens the package and keeps it; null if its file can't be created.
VtaCore::CZipOutputStream *OpenZip(HostState &host, std::string_view path, std::string &error) {
    std::unique_ptr<ZipFile> zip = ZipFile::Create(ToWide(path), error);
    if (zip == nullptr)
        return nullptr;
    const void *key = &zip->Stream();
    return &host.zips.emplace(key, std::move(zip)).first->second->Stream();
}

/// The object that one of the binder's userdata holds; null for anything else, and if it is gone.
const void *ObjectOf(lua_State *L, int index) {
    const auto *instance = static_cast<const SLB3::SlbInstance *>(lua_touserdata(L, index));
    if (instance == nullptr || lua_rawlen(L, index) < sizeof *instance || instance->resolve == nullptr)
        return nullptr;
    const SLB3::SlbInstanceView view{instance, instance + 1};
    return instance->resolve(&view);
}

/// The open zip at stack index 1.
ZipFile &CheckZip(lua_State *L) {
    HostState &host = HostOf(L);
    const auto open = host.zips.find(ObjectOf(L, 1));
    luaL_argcheck(L, open != host.zips.end(), 1, "an open zip of host.zip expected");
    return *open->second;
}

/// Lua: zip:add(name, text). A file of the script's own.
int AddToZip(lua_State *L) {
    VtaCore::CZipOutputStream &zip = CheckZip(L).Stream();
    const std::string_view name = CheckText(L, 2);
    const std::string_view text = CheckText(L, 3);
    luaL_argcheck(L, !name.empty(), 2, "a file's name expected");
    bool added = false;
    {
        wxMemoryInputStream content(text.data(), text.size());
        added = zip.AddFromStream(content, false, wxString(ToWide(name)), wxString());
    }
    return added ? 0 : luaL_error(L, "cannot add %s to the zip", lua_tostring(L, 2));
}

/// Gives the methods to the type of the zip on top of the stack.
void AddZipMethods(lua_State *L, HostState &host) {
    constexpr luaL_Reg methods[] = {{"add", AddToZip}, {nullptr, nullptr}};
    lua_getmetatable(L, -1);
    lua_newtable(L);
    AddFunctions(L, host, methods);
    lua_setfield(L, -2, "__index");
    lua_pop(L, 1);
}

/// Lua: zip = host.zip(path). A new zip file, for the module's functions that write a package.
int NewZip(lua_State *L) {
    const std::string_view path = CheckText(L, 1);
    VtaCore::CZipOutputStream *stream = nullptr;
    bool pushed = false;
    {
        std::string error;
        stream = OpenZip(HostOf(L), path, error);
        pushed = stream != nullptr || PushText(L, error);
    }
    if (stream == nullptr)
        return RaiseText(L, pushed);
    SLB3::Control::PushInstance(L, kZipTypeName, stream);
    AddZipMethods(L, HostOf(L));
    return 1;
}

/// Lua: host.close_zip(zip). Finishes the file; open zips are finished when the program ends.
int CloseZip(lua_State *L) {
    ZipFile &zip = CheckZip(L);
    const void *const key = &zip.Stream();
    SLB3::Control::ForgetObject(L, 1);
    bool closed = false;
    bool pushed = false;
    {
        std::string error;
        closed = zip.Close(error);
        pushed = closed || PushText(L, error);
    }
    HostOf(L).zips.erase(key);
    if (closed)
        return 0;
    return RaiseText(L, pushed);
}

/// Lua: files = host.read_zip(path). Its files: an array of tables with `name` and `content`.
int ReadZip(lua_State *L) {
    const std::string_view path = CheckText(L, 1);
    bool read = false;
    bool pushed = false;
    {
        std::string error;
        const std::optional<std::vector<ZippedFile>> files = ReadZipFile(wxString(ToWide(path)), error);
        read = files.has_value();
        pushed = PushProtected(L, [&](lua_State *state) {
            if (!files) {
                lua_pushlstring(state, error.data(), error.size());
                return;
            }
            lua_createtable(state, static_cast<int>(files->size()), 0);
            int index = 0;
            for (const ZippedFile &file : *files) {
                lua_createtable(state, 0, 2);
                SetField(state, "name", file.name);
                SetField(state, "content", file.content);
                lua_rawseti(state, -2, ++index);
            }
        });
    }
    if (!pushed)
        return lua_error(L);
    return read ? 1 : luaL_argerror(L, 1, lua_tostring(L, -1));
}

}  // namespace

void AddZipFunctions(lua_State *L, HostState &host) {
    constexpr luaL_Reg functions[] = {
        {"zip", NewZip},
        {"close_zip", CloseZip},
        {"read_zip", ReadZip},
        {nullptr, nullptr},
    };
    AddFunctions(L, host, functions);
}
