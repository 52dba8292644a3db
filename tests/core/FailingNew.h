// Memory that is exhausted on request, for what is allocated with std::nothrow.
#pragma once

// While one of these lives, new (std::nothrow) of the thread that made it gives null.
class CFailingNew {
public:
    CFailingNew();
    ~CFailingNew();
    CFailingNew(const CFailingNew&) = delete;
    CFailingNew& operator=(const CFailingNew&) = delete;
};
