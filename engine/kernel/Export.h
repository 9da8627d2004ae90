#pragma once

// The library is built with hidden visibility; only what carries KOVEX_API
// reaches the dynamic symbol table.
#define KOVEX_API __attribute__((visibility("default")))
