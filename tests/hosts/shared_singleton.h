// A singleton class known to a host and to a module it links, both built with hidden visibility
// as the library's users build. Its constructor and destructor say so on standard output, so the
// host test counts how many instances the process made.
#pragma once

#include <Infrastructure/QelCore/QelCore.h>

#include <cstdio>

class SharedCounted : public Qel::Core::Singleton<SharedCounted>
{
public:
    SharedCounted() { std::printf("SharedCounted built\n"); }
    ~SharedCounted() override { std::printf("SharedCounted destroyed\n"); }
};
