#pragma once

// For programs that list support/replaced_new.cpp, which replaces new and delete: asked before each
// allocation; false makes it fail. They define it.
bool may_allocate() noexcept;
