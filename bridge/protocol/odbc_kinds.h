// What kind of value an ODBC information type or attribute carries. Both
// sides need it: the server to know how much of a target's buffer is value,
// the driver to apply string rules (truncation, UTF-16) to text only.
#pragma once

#include <cstdint>

namespace zb {

enum class ValueKind { Text, Int16, Int32, Word /* SQLULEN or pointer-sized */ };

ValueKind info_kind(int info_type);        // SQLGetInfo
bool col_attribute_is_text(int field);     // SQLColAttribute
bool connect_attr_is_text(int attribute);  // SQLSet/GetConnectAttr
// Statement attributes the driver keeps on its side: addresses in the
// application, and the shape of the buffers a fetch or an execute fills,
// which the server sets for its own buffers.
bool stmt_attr_is_local(int attribute);
// Attributes a server refuses from a client, whose value would reach past
// the data source into the server's process: addresses there (whatever the
// target wrote through them would land anywhere), the local ones above,
// trace files and translation libraries.
bool stmt_attr_is_refused(int attribute);
bool connect_attr_is_refused(int attribute);
int c_type_fixed_size(int c_type);         // 0 for variable-length C types

}  // namespace zb
