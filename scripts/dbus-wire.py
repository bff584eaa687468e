#!/usr/bin/env python3
"""Generates typed C++ for the methods of a D-Bus introspection file.

    scripts/dbus-wire.py XML NAMESPACE OUT.h OUT.cpp

For every method of every interface in XML it writes a struct of its in
arguments (`<Interface><Method>In`) and one of its out arguments (`...Out`),
reading and writing them from and to GVariants, and the one table of the
methods by name (`FindMethod`). A request is read once, into its struct;
nothing else reads arguments by position or compares method names.

Types: s, i, u, x, b, as, ax, ay and arrays of tuples of them. Read in
arguments borrow their strings from the message (`const char*`, valid while
the GVariant lives); out arguments own theirs. An `ay` is a `Bytes`: owned
when written (handed to GLib without a copy: an out argument's `owned`, an
in argument's `shared`, which the message keeps alive), borrowed when read.

Annotations the generator reads:
  org.tilvane.Structs (on an argument): the struct names and fields of the
      tuples in its type, in the order they appear: "Name(field field) ...".
  org.tilvane.Optional (on a trailing out argument): older senders leave it
      out; a reply without it is read with the field at its default.
The introspection XML itself is embedded (`IntrospectionXml()`).
"""
import re
import sys
import xml.etree.ElementTree as ET

SCALARS = {
    's': ('const char*', 'std::string', '&s', 's'),
    'i': ('int32_t', 'int32_t', 'i', 'i'),
    'u': ('uint32_t', 'uint32_t', 'u', 'u'),
    'x': ('int64_t', 'int64_t', 'x', 'x'),
    'b': ('bool', 'bool', 'b', 'b'),
    # A file descriptor: its index in the message's descriptor list.
    'h': ('FdIndex', 'FdIndex', 'h', 'h'),
}
DEFAULTS = {'s': '""', 'i': '0', 'u': '0', 'x': '-1', 'b': 'false'}


def split_types(signature):
    """The complete types of a signature, in order."""
    types, i = [], 0
    while i < len(signature):
        j = complete_type_end(signature, i)
        types.append(signature[i:j])
        i = j
    return types


def complete_type_end(signature, i):
    if signature[i] == 'a':
        return complete_type_end(signature, i + 1)
    if signature[i] == '(':
        depth, j = 0, i
        while True:
            depth += {'(': 1, ')': -1}.get(signature[j], 0)
            j += 1
            if depth == 0:
                return j
    return i + 1


def camel(name):
    return name[0].upper() + name[1:]


def write_expr(expr, t, movable):
    """The C++ expression that writes `expr` of D-Bus type `t` as a GVariant."""
    if t.startswith('a') and t not in ('ax', 'ay'):
        return 'WriteArray(%s, "%s")' % (expr, t)
    return 'WriteValue(std::move(%s))' % expr if movable else 'WriteValue(%s)' % expr


class Generator:
    def __init__(self, xml_text, namespace):
        self.root = ET.fromstring(xml_text)
        self.xml_text = xml_text
        self.namespace = namespace
        self.structs = []       # (name, [(field, type)])
        self.struct_names = {}  # tuple signature -> (name)
        self.methods = []       # dicts

    # ---- model -------------------------------------------------------------

    def read(self):
        for interface in self.root.findall('interface'):
            short = interface.get('name').split('.')[-1]
            for method in interface.findall('method'):
                args = method.findall('arg')
                self.methods.append({
                    'interface': interface.get('name'), 'name': method.get('name'),
                    'id': short + method.get('name'),
                    'in': [self.arg(a) for a in args if a.get('direction', 'in') == 'in'],
                    'out': [self.arg(a) for a in args if a.get('direction') == 'out'],
                })

    def arg(self, element):
        notes = {a.get('name'): a.get('value') for a in element.findall('annotation')}
        if 'org.tilvane.Structs' in notes:
            self.name_structs(element.get('type'), notes['org.tilvane.Structs'])
        return {'name': element.get('name'), 'type': element.get('type'),
                'optional': notes.get('org.tilvane.Optional') == 'true'}

    def name_structs(self, signature, text):
        declared = re.findall(r'(\w+)\(([^)]*)\)', text)
        tuples = []
        for i, c in enumerate(signature):
            if c == '(':
                tuples.append(signature[i:complete_type_end(signature, i)])
        if len(tuples) != len(declared):
            sys.exit('dbus-wire: %s: %d tuples, %d struct names' % (signature, len(tuples), len(declared)))
        for tuple_type, (name, fields) in reversed(list(zip(tuples, declared))):
            members = split_types(tuple_type[1:-1])
            names = fields.split()
            if len(names) != len(members):
                sys.exit('dbus-wire: %s: %d fields named for %s' % (name, len(names), tuple_type))
            self.struct_names[tuple_type] = name
            self.structs.append((name, list(zip(names, members))))

    # ---- C++ types -----------------------------------------------------------

    def cpp_type(self, t, borrowed):
        if t in SCALARS:
            return SCALARS[t][0 if borrowed else 1]
        if t == 'ay':
            return 'Bytes'
        if t.startswith('a'):
            return 'std::vector<%s>' % self.cpp_type(t[1:], borrowed)
        if t.startswith('('):
            return self.struct_names[t]
        sys.exit('dbus-wire: type %s is not supported' % t)

    # ---- header --------------------------------------------------------------

    def header(self, guard):
        out = ['/* Generated by scripts/dbus-wire.py from the introspection XML; do not edit. */',
               '#ifndef %s' % guard, '#define %s' % guard, '',
               '#include <gio/gio.h>', '', '#include <cstddef>', '#include <cstdint>', '#include <memory>', '#include <string>',
               '#include <variant>', '#include <vector>', '']
        out += ['namespace %s {' % part for part in self.namespace.split('::')] + ['']
        out += ['/* A byte string (`ay`): owned when written, borrowed from the message when read.',
                ' * An in argument is written from `shared` without a copy (or copied from `data`). */',
                'struct Bytes {', '    std::string owned;', '    const uint8_t* data = nullptr;',
                '    size_t size = 0;', '    std::shared_ptr<const std::string> shared;',
                '    const uint8_t* Begin() const { return data != nullptr ? data : '
                'reinterpret_cast<const uint8_t*>(shared ? shared->data() : owned.data()); }',
                '    size_t Size() const { return data != nullptr ? size : shared ? shared->size() : owned.size(); }',
                '};', '',
                '/* A file descriptor passed with the message (type h): its index in the',
                ' * message\'s list of descriptors; -1 for none. */',
                'struct FdIndex {', '    int32_t index = -1;', '};', '']
        out += ['enum class Method {'] + ['    %s,' % m['id'] for m in self.methods] + ['};', '']
        out += ['/* The method `interfaceName`.`methodName`: the one place where names become',
                ' * methods. False for a name this description does not have. */',
                'bool FindMethod(const char* interfaceName, const char* methodName, Method& method);',
                'const char* InterfaceOf(Method method);', 'const char* NameOf(Method method);',
                '/* The type of the method\'s reply, or null when older senders may send less. */',
                'const GVariantType* ReplyTypeOf(Method method);',
                '/* The introspection XML this was made from. */', 'const char* IntrospectionXml();', '']
        for name, fields in self.structs:
            out += self.struct(name, [(f, t) for f, t in fields], True)
        for m in self.methods:
            out += self.struct(m['id'] + 'In', [(a['name'], a['type']) for a in m['in']], True)
            if any('(' in a['type'] for a in m['out']):
                sys.exit('dbus-wire: %s: structs are read only, not written, in replies' % m['id'])
            out += self.struct(m['id'] + 'Out', [(a['name'], a['type']) for a in m['out']], False)
        out += ['/* Every method\'s request, as read from a call. */',
                'using Request = std::variant<%s>;' % ', '.join(m['id'] + 'In' for m in self.methods), '',
                '/* The request of `method` from its call\'s parameters; false when they are not',
                ' * of the method\'s type. */',
                'bool ReadRequest(Method method, GVariant* parameters, Request& request);', '',
                'template <typename In>', 'struct MethodOf;']
        for m in self.methods:
            out += ['template <>', 'struct MethodOf<%sIn> {' % m['id'],
                    '    static constexpr Method kMethod = Method::%s;' % m['id'],
                    '    using Out = %sOut;' % m['id'], '};']
        out.append('')
        for m in self.methods:
            i, o = m['id'] + 'In', m['id'] + 'Out'
            out += ['bool Read(GVariant* parameters, %s& in);' % i,
                    '/* Floating, as g_dbus_connection_call takes it. */',
                    'GVariant* ToVariant(const %s& in);' % i,
                    'bool Read(GVariant* reply, %s& out);' % o,
                    'GVariant* ToVariant(%s&& out);' % o, '']
        out += ['}  // namespace %s' % part for part in reversed(self.namespace.split('::'))]
        out += ['', '#endif', '']
        return '\n'.join(out)

    def struct(self, name, fields, borrowed):
        lines = ['struct %s {' % name]
        for field, t in fields:
            cpp = self.cpp_type(t, borrowed)
            default = ' = %s' % DEFAULTS[t] if t in DEFAULTS and not (t == 's' and not borrowed) else ''
            if t == 's' and not borrowed:
                default = ''
            lines.append('    %s %s%s;' % (cpp, field, default))
        return lines + ['};', '']

    # ---- source --------------------------------------------------------------

    def source(self, header_name):
        ns = self.namespace.split('::')
        out = ['/* Generated by scripts/dbus-wire.py from the introspection XML; do not edit. */',
               '#include "%s"' % header_name, '', '#include <cstring>', '#include <utility>', '']
        out += ['namespace %s {' % part for part in ns] + ['namespace {', '']
        out += ['constexpr char kXml[] = R"wirexml(%s)wirexml";' % self.xml_text, '']
        for name, _ in self.structs:
            out += ['bool ReadValue(GVariant* value, %s& item);' % name, 'GVariant* WriteValue(const %s& item);' % name]
        out += HELPERS
        for name, fields in self.structs:
            out += self.struct_readers(name, fields)
        out += ['struct MethodName {', '    const char* interfaceName;', '    const char* methodName;',
                '    const char* replyType;', '};', '', 'constexpr MethodName kMethods[] = {']
        for m in self.methods:
            optional = any(a['optional'] for a in m['out'])
            reply = 'nullptr' if optional else '"(%s)"' % ''.join(a['type'] for a in m['out'])
            out.append('    {"%s", "%s", %s},' % (m['interface'], m['name'], reply))
        out += ['};', '', '}  // namespace', '']
        out += METHOD_TABLE
        for m in self.methods:
            out += self.method_code(m)
        out += ['bool ReadRequest(Method method, GVariant* parameters, Request& request)', '{',
                '    switch (method) {']
        for m in self.methods:
            out += ['    case Method::%s: {' % m['id'], '        %sIn in;' % m['id'],
                    '        if (!Read(parameters, in)) {', '            return false;', '        }',
                    '        request = std::move(in);', '        return true;', '    }']
        out += ['    }', '    return false;', '}', '']
        out += ['}  // namespace %s' % part for part in reversed(ns)] + ['']
        return '\n'.join(out)

    def struct_readers(self, name, fields):
        sig = '(%s)' % ''.join(t for _, t in fields)
        out = ['bool ReadValue(GVariant* value, %s& item)' % name, '{',
               '    if (!g_variant_is_of_type(value, G_VARIANT_TYPE("%s"))) {' % sig, '        return false;', '    }']
        for i, (field, t) in enumerate(fields):
            out += ['    {', '        GVariant* child = g_variant_get_child_value(value, %d);' % i,
                    '        const bool read = ReadValue(child, item.%s);' % field,
                    '        g_variant_unref(child);', '        if (!read) {', '            return false;',
                    '        }', '    }']
        out += ['    return true;', '}', '', 'GVariant* WriteValue(const %s& item)' % name, '{',
                '    GVariant* children[] = {%s};' % ', '.join(write_expr('item.' + f, t, False) for f, t in fields),
                '    return g_variant_new_tuple(children, %d);' % len(fields), '}', '']
        return out

    def method_code(self, m):
        out = []
        for kind, args in (('In', m['in']), ('Out', m['out'])):
            name = m['id'] + kind
            var = 'in' if kind == 'In' else 'out'
            param = 'parameters' if kind == 'In' else 'reply'
            required = len([a for a in args if not a['optional']])
            too_few = ' || count < %d' % required if required > 0 else ''
            out += ['bool Read(GVariant* %s, %s& %s)' % (param, name, var), '{',
                    '    const gsize count = g_variant_is_of_type(%s, G_VARIANT_TYPE_TUPLE) ? '
                    'g_variant_n_children(%s) : 0;' % (param, param),
                    '    if (!g_variant_is_of_type(%s, G_VARIANT_TYPE_TUPLE)%s || count > %d) {' %
                    (param, too_few, len(args)), '        return false;', '    }']
            if not args:
                out.append('    (void)%s;' % var)
            for i, a in enumerate(args):
                out += ['    if (count > %d) {' % i,
                        '        GVariant* child = g_variant_get_child_value(%s, %d);' % (param, i),
                        '        const bool read = ReadValue(child, %s.%s);' % (var, a['name']),
                        '        g_variant_unref(child);', '        if (!read) {', '            return false;',
                        '        }', '    }']
            out += ['    return true;', '}', '']
            signature = 'const %s& %s' % (name, var) if kind == 'In' else '%s&& %s' % (name, var)
            out += ['GVariant* ToVariant(%s)' % signature, '{']
            if args:
                values = ', '.join(write_expr('%s.%s' % (var, a['name']), a['type'], kind == 'Out') for a in args)
                out += ['    GVariant* children[] = {%s};' % values,
                        '    return g_variant_new_tuple(children, %d);' % len(args), '}', '']
            else:
                out += ['    (void)%s;' % var, '    return g_variant_new_tuple(nullptr, 0);', '}', '']
        return out


HELPERS = r'''
[[maybe_unused]] bool ReadValue(GVariant* value, const char*& text)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_STRING)) {
        return false;
    }
    text = g_variant_get_string(value, nullptr);
    return true;
}

[[maybe_unused]] bool ReadValue(GVariant* value, std::string& text)
{
    const char* borrowed = nullptr;
    if (!ReadValue(value, borrowed)) {
        return false;
    }
    text = borrowed;
    return true;
}

template <typename T>
bool ReadNumber(GVariant* value, const GVariantType* type, T (*get)(GVariant*), T& number)
{
    if (!g_variant_is_of_type(value, type)) {
        return false;
    }
    number = get(value);
    return true;
}

[[maybe_unused]] bool ReadValue(GVariant* value, int32_t& number) { return ReadNumber(value, G_VARIANT_TYPE_INT32, g_variant_get_int32, number); }
[[maybe_unused]] bool ReadValue(GVariant* value, uint32_t& number) { return ReadNumber(value, G_VARIANT_TYPE_UINT32, g_variant_get_uint32, number); }
[[maybe_unused]] bool ReadValue(GVariant* value, int64_t& number) { return ReadNumber(value, G_VARIANT_TYPE_INT64, g_variant_get_int64, number); }
[[maybe_unused]] bool ReadValue(GVariant* value, FdIndex& fd) { return ReadNumber(value, G_VARIANT_TYPE_HANDLE, g_variant_get_handle, fd.index); }

[[maybe_unused]] bool ReadValue(GVariant* value, bool& flag)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_BOOLEAN)) {
        return false;
    }
    flag = g_variant_get_boolean(value) != FALSE;
    return true;
}

/* Borrowed from the message: valid while `value`'s message lives. */
[[maybe_unused]] bool ReadValue(GVariant* value, Bytes& bytes)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_BYTESTRING)) {
        return false;
    }
    gsize size = 0;
    bytes.data = static_cast<const uint8_t*>(g_variant_get_fixed_array(value, &size, 1));
    bytes.size = size;
    if (bytes.data == nullptr) {
        static const uint8_t kEmpty = 0;
        bytes.data = &kEmpty;
    }
    return true;
}

[[maybe_unused]] bool ReadValue(GVariant* value, std::vector<int64_t>& numbers)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE("ax"))) {
        return false;
    }
    gsize count = 0;
    const auto* values = static_cast<const int64_t*>(g_variant_get_fixed_array(value, &count, sizeof(int64_t)));
    numbers.assign(values, values + count);
    return true;
}

template <typename T>
[[maybe_unused]] bool ReadValue(GVariant* value, std::vector<T>& items)
{
    if (!g_variant_is_of_type(value, G_VARIANT_TYPE_ARRAY)) {
        return false;
    }
    const gsize count = g_variant_n_children(value);
    items.resize(count);
    for (gsize i = 0; i < count; ++i) {
        GVariant* child = g_variant_get_child_value(value, i);
        const bool read = ReadValue(child, items[i]);
        g_variant_unref(child);
        if (!read) {
            return false;
        }
    }
    return true;
}

[[maybe_unused]] GVariant* WriteValue(const char* text) { return g_variant_new_string(text != nullptr ? text : ""); }
[[maybe_unused]] GVariant* WriteValue(const std::string& text) { return g_variant_new_string(text.c_str()); }
[[maybe_unused]] GVariant* WriteValue(int32_t number) { return g_variant_new_int32(number); }
[[maybe_unused]] GVariant* WriteValue(uint32_t number) { return g_variant_new_uint32(number); }
[[maybe_unused]] GVariant* WriteValue(int64_t number) { return g_variant_new_int64(number); }
[[maybe_unused]] GVariant* WriteValue(bool flag) { return g_variant_new_boolean(flag); }
[[maybe_unused]] GVariant* WriteValue(FdIndex fd) { return g_variant_new_handle(fd.index); }

[[maybe_unused]] void FreeOwnedBytesCB(gpointer data)
{
    delete static_cast<std::string*>(data);
}

/* Owned bytes go to GLib without a copy (a result may be half a megabyte). */
[[maybe_unused]] GVariant* WriteValue(Bytes&& bytes)
{
    if (bytes.data != nullptr) {
        return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data, bytes.size, 1);
    }
    auto* owned = new std::string(std::move(bytes.owned));
    GBytes* wrapped = g_bytes_new_with_free_func(owned->data(), owned->size(), FreeOwnedBytesCB, owned);
    GVariant* variant = g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, wrapped, TRUE);
    g_bytes_unref(wrapped);
    return variant;
}

[[maybe_unused]] void FreeSharedBytesCB(gpointer data)
{
    delete static_cast<std::shared_ptr<const std::string>*>(data);
}

/* An in argument: its shared bytes without a copy (the message holds a
 * reference until it is sent and freed), else a copy of what it borrows. */
[[maybe_unused]] GVariant* WriteValue(const Bytes& bytes)
{
    if (!bytes.shared) {
        return g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.Begin(), bytes.Size(), 1);
    }
    auto* holder = new std::shared_ptr<const std::string>(bytes.shared);
    GBytes* wrapped = g_bytes_new_with_free_func((*holder)->data(), (*holder)->size(), FreeSharedBytesCB, holder);
    GVariant* variant = g_variant_new_from_bytes(G_VARIANT_TYPE_BYTESTRING, wrapped, TRUE);
    g_bytes_unref(wrapped);
    return variant;
}

[[maybe_unused]] GVariant* WriteValue(const std::vector<int64_t>& numbers)
{
    return g_variant_new_fixed_array(G_VARIANT_TYPE_INT64, numbers.data(), numbers.size(), sizeof(int64_t));
}

template <typename T>
[[maybe_unused]] GVariant* WriteArray(const std::vector<T>& items, const char* type)
{
    GVariantBuilder builder;
    g_variant_builder_init(&builder, G_VARIANT_TYPE(type));
    for (const T& item : items) {
        g_variant_builder_add_value(&builder, WriteValue(item));
    }
    return g_variant_builder_end(&builder);
}
'''.split('\n')

METHOD_TABLE = r'''bool FindMethod(const char* interfaceName, const char* methodName, Method& method)
{
    for (size_t i = 0; i < sizeof kMethods / sizeof kMethods[0]; ++i) {
        if (std::strcmp(kMethods[i].interfaceName, interfaceName) == 0 &&
            std::strcmp(kMethods[i].methodName, methodName) == 0) {
            method = static_cast<Method>(i);
            return true;
        }
    }
    return false;
}

const char* InterfaceOf(Method method)
{
    return kMethods[static_cast<size_t>(method)].interfaceName;
}

const char* NameOf(Method method)
{
    return kMethods[static_cast<size_t>(method)].methodName;
}

const GVariantType* ReplyTypeOf(Method method)
{
    const char* type = kMethods[static_cast<size_t>(method)].replyType;
    return type != nullptr ? G_VARIANT_TYPE(type) : nullptr;
}

const char* IntrospectionXml()
{
    return kXml;
}
'''.split('\n')


def main():
    if len(sys.argv) != 5:
        sys.exit(__doc__)
    xml_path, namespace, header_path, source_path = sys.argv[1:]
    with open(xml_path, encoding='utf-8') as f:
        xml_text = f.read()
    generator = Generator(xml_text, namespace)
    generator.read()
    header_name = header_path.split('/')[-1]
    guard = 'TILVANE_GENERATED_' + re.sub(r'\W', '_', header_name).upper()
    with open(header_path, 'w', encoding='utf-8') as f:
        f.write(generator.header(guard))
    with open(source_path, 'w', encoding='utf-8') as f:
        f.write(generator.source(header_name))


if __name__ == '__main__':
    main()
