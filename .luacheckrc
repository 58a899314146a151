std = "lua52"
max_line_length = 120
-- The module's functions, and the host program's side.
read_globals = {
    "SLB",
    host = {
        other_fields = true,
        fields = {
            driver = { read_only = false, other_fields = true },
            machine = { read_only = false, other_fields = true },
        },
    },
}
-- The definitions for editors are stubs, and make the tables.
files["docs/lua"] = { globals = { "SLB", "host" }, unused_args = false }
