std = "lua52"
max_line_length = 120
-- The module's functions, and the host program's side.
read_globals = { "SLB", "host" }
