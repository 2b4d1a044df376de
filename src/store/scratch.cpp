#include "store/scratch.h"

namespace corvida {
namespace store {

ScratchPool::Lease ScratchPool::Acquire() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_free.empty()) {
            std::unique_ptr<Scratch> scratch = std::move(m_free.back());
            m_free.pop_back();
            return Lease(this, std::move(scratch));
        }
    }
    return Lease(this, std::unique_ptr<Scratch>(new Scratch));
}

void ScratchPool::Return(std::unique_ptr<Scratch> scratch) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_free.push_back(std::move(scratch));
}

ErrorLines::ErrorLines() {
    plog_category_init(&m_category, "corvida-store", PLOG_PRIORITY_ERROR);
    m_category.pfnWrite = &ErrorLines::Sink;
    m_category.pvWriteCtx = this;
}

void ErrorLines::Sink(void* ctx, const PLOGEVENT* /*event*/, const char* msg, size_t len) {
    std::string& text = static_cast<ErrorLines*>(ctx)->m_text;
    if (!text.empty()) text += "; ";
    text.append(msg, len);
}

}  // namespace store
}  // namespace corvida
