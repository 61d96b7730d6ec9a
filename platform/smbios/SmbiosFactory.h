// Where the SMBIOS table of the machine comes from. One factory and one table
// for the whole process; the table is read on first access and kept.
#pragma once

#include "frame/Export.h"
#include "platform/smbios/ISmbiosTable.h"

#include <memory>

namespace smbios {

class OSTRAND_API SmbiosFactory {
public:
    // The process-wide factory. Not freed by the caller.
    static SmbiosFactory* getFactory();

    // Forgets the table, so that the next getSingleton reads the machine anew.
    // Tables and iterators handed out before are invalid afterwards. For tests,
    // which install one fake machine after another, and for a caller that
    // wants to read the machine again.
    static void reset();

    virtual ~SmbiosFactory();

    // The process-wide table, read on the first call. Not freed by the caller.
    // Throws SmbiosException when the machine has no table that can be read;
    // nothing is kept then, and the next call tries again.
    virtual ISmbiosTable* getSingleton();

    // A table read from the machine now, owned by the caller. Throws
    // SmbiosException as getSingleton does.
    virtual ISmbiosTable* makeNew();

protected:
    SmbiosFactory();

private:
    SmbiosFactory(const SmbiosFactory&);
    SmbiosFactory& operator=(const SmbiosFactory&);

    std::unique_ptr<ISmbiosTable> m_table;
};

} // namespace smbios
