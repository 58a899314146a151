// Connection metrics, through SLB.filter on the module as it ships.
#pragma once

#include <string>

#include "ModuleFixture.h"

class ConnMetrics : public ModuleFixture {
protected:
    ConnMetrics() {
        lua.Run(R"(
            f = SLB.filter
            function add(key, text, count) f.AddToConnMetrics(key, text or 'name\tvalue', count or 1) end
            function fill(first, last) for i = first, last do add(string.format('key%05d', i)) end end
            -- every field of a row, as one text
            function show(row)
                local names = {}
                for name in pairs(row) do names[#names + 1] = name end
                table.sort(names)
                for i, name in ipairs(names) do
                    local value = row[name]
                    names[i] = name .. '=' .. (type(value) == 'string' and '"' .. value .. '"' or tostring(value))
                end
                return table.concat(names, ' ')
            end
            function sum(rows) local n = 0 for _, row in ipairs(rows) do n = n + row.count end return n end
        )");
    }

    /// Advances the time far enough for a fold, and folds.
    void Fold() {
        AdvanceSeconds(61);
        lua.Run("f.UpdateConnMetrics()");
    }

    /// The rows as show() prints them, one per line.
    std::string Drain() {
        lua.Run("rows = f.GetConnMetrics() text = {} for i, row in ipairs(rows) do text[i] = show(row) end");
        return lua.Eval("table.concat(text, '\\n')");
    }

    /// The one row that the text gives with a count of 1.
    std::string RowOf(const std::string &luaText) {
        lua.Run("add('key', " + luaText + ")");
        Fold();
        return Drain();
    }
};
