// What a TableStore shares with the Tables opened from it: the engine, the
// log category and the pool of scratch records. Private to the store.
#ifndef CORVIDA_STORE_STORE_CONTEXT_H_
#define CORVIDA_STORE_STORE_CONTEXT_H_

#include <memory>

#include "plog/plog.h"
#include "store/engine.h"
#include "store/scratch.h"

namespace corvida {
namespace store {

class StoreContext {
public:
    StoreContext(std::unique_ptr<Engine> engine, LPPLOGCATEGORYINST log) : m_engine(std::move(engine)) {
        plog_category_init(&m_silent, "corvida-store", PLOG_PRIORITY_FATAL);
        m_log = log != nullptr ? log : &m_silent;
    }

    StoreContext(const StoreContext&) = delete;
    StoreContext& operator=(const StoreContext&) = delete;

    Engine* engine() const { return m_engine.get(); }
    // Never null: the caller's category, or a silent one.
    LPPLOGCATEGORYINST log() { return m_log; }
    ScratchPool& scratch() { return m_scratch; }

private:
    std::unique_ptr<Engine> m_engine;
    PLOGCATEGORYINST m_silent;
    LPPLOGCATEGORYINST m_log;
    ScratchPool m_scratch;
};

}  // namespace store
}  // namespace corvida

#endif  // CORVIDA_STORE_STORE_CONTEXT_H_
