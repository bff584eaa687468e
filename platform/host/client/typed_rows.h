/*
 * The typed rows of tilvane_publisher.h and their columns, in one table per
 * kind of row: what a publish writes, what a read fills, what the C
 * interface's column numbers stand for and what equality compares all come
 * from these tables. Internal to the host platform.
 */
#ifndef TILVANE_PLATFORM_TYPED_ROWS_H
#define TILVANE_PLATFORM_TYPED_ROWS_H

#include <cstddef>
#include <string>
#include <variant>
#include <vector>

#include "tilvane_client.h"
#include "tilvane_publisher.h"

namespace tilvane {
namespace host {
namespace typed {

/* A typed field of a row of type Row. */
template <typename Row>
using Member = std::variant<std::string Row::*, int64_t Row::*, bool Row::*, client::DisplayMode Row::*,
                            client::ImageRatio Row::*>;

template <typename Row>
struct Field {
    int column;       /* the tilvane_column of tilvane_c.h */
    const char* name; /* the column's name (tilvane_schema.h) */
    Member<Row> member;
};

const std::vector<Field<client::LauncherEntry>>& EntryFields();
const std::vector<Field<client::Section>>& SectionFields();
const std::vector<Field<client::Tile>>& TileFields();

/* The columns to select for a row: "_id" first, then every field's column. */
template <typename Row>
std::vector<std::string> Projection(const std::vector<Field<Row>>& fields);

/* The row's values that differ from a new row's, in the binary form of a bundle;
 * `rawBytes` receives the bytes of their names and values. `ok` false when a
 * text holds what a bundle cannot (it is cut at a NUL byte). */
template <typename Row>
std::string EncodeRow(const Row& row, const std::vector<Field<Row>>& fields, size_t& rawBytes, bool& ok);

/* Fills `row` from a selected row whose columns are Projection(fields). */
template <typename Row>
void ReadRow(Row& row, const std::vector<Field<Row>>& fields, const std::vector<client::Cell>& cells);

/* Whether every field of the two rows is equal (row ids are no fields). */
template <typename Row>
bool SameFields(const Row& a, const Row& b, const std::vector<Field<Row>>& fields);

/* Columns by number, for the C interface: the field, or null. */
template <typename Row>
const Field<Row>* FieldOfColumn(const std::vector<Field<Row>>& fields, int column);

/* Columns by name (tilvane_schema.h): the field, or null. */
template <typename Row>
const Field<Row>* FieldOfName(const std::vector<Field<Row>>& fields, const std::string& name);

/* A field as text (enumerations as stored: "16:9", "ALWAYS"; numbers in
 * decimal), and set from text: false when the text is no value of the field. */
template <typename Row>
std::string TextOf(const Row& row, const Field<Row>& field);
template <typename Row>
bool SetFromText(Row& row, const Field<Row>& field, const std::string& text);

/* The text of a text field (owned by the row) or of an enumeration field (a
 * constant); null for the other fields. */
template <typename Row>
const char* StableText(const Row& row, const Field<Row>& field);

/* A number, yes/no or enumeration field as a number (an enumeration by its
 * position), and set from one: false for a text field or a number that is no
 * value of the field. */
template <typename Row>
bool IntegerOf(const Row& row, const Field<Row>& field, int64_t& value);
template <typename Row>
bool SetFromInteger(Row& row, const Field<Row>& field, int64_t value);

}  // namespace typed
}  // namespace host
}  // namespace tilvane

#endif
