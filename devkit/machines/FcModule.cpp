#include "FcModule.h"

#include <stdexcept>

#include "Failure.h"

void UnloadFc() {
    while (const HMODULE module = GetModuleHandleW(L"fc.dll"))
        FreeLibrary(module);
}

FcModule::FcModule() : m_handle(nullptr) {
    if (GetModuleHandleW(L"fc.dll"))
        throw std::logic_error("fc.dll is loaded already: another FcModule is alive");
    m_handle = LoadLibraryW(L"fc.dll");
    if (!m_handle)
        throw std::runtime_error("fc.dll can't be loaded: error " + std::to_string(GetLastError()));
}

lua_CFunction FcModule::luaopen() const {
    return reinterpret_cast<lua_CFunction>(reinterpret_cast<void *>(GetProcAddress(m_handle, "luaopen_fc")));
}

void LuaState::Run(const std::string &code) {
    const std::string error = ErrorOf(code);
    if (!error.empty())
        NoteFailure(error + ", in: " + code);
}

std::string LuaState::ErrorOf(const std::string &code) {
    std::string error;
    if (luaL_loadbuffer(m_state, code.data(), code.size(), "=test") || lua_pcall(m_state, 0, 0, 0)) {
        const char *text = lua_tostring(m_state, -1);
        error = text ? text : "(an error without a text)";
        lua_pop(m_state, 1);
    }
    return error;
}

std::string LuaState::Eval(const std::string &expression) {
    const std::string code = "return tostring(" + expression + ")";
    std::string result;
    if (luaL_loadbuffer(m_state, code.data(), code.size(), "=test") || lua_pcall(m_state, 0, 1, 0))
        NoteFailure(code + ": " + lua_tostring(m_state, -1));
    size_t length = 0;
    const char *text = lua_tolstring(m_state, -1, &length);
    if (text)
        result.assign(text, length);
    lua_pop(m_state, 1);
    return result;
}
