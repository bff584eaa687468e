#include "DbHelper.h"

#include "TilesModel.h"
#include "TilvaneLog.h"

CDbHelper::CDbHelper(std::string directory, std::string fileName, int version)
    : CContentHelper(directory, fileName, version)
{
    ConnectDB();
}

CDbHelper::~CDbHelper()
{
}

void CDbHelper::OnConfigure(CContentDbConnection* connection)
{
    connection->SetForeignKeyConstraintsEnabled(true);
}

/* A referenced table is always created before the table that references it. */
void CDbHelper::OnCreate(CContentDbConnection* /*connection*/)
{
    createAcceleratorsTable();
    createSectionsTable();
    createTilesTable();
}

/* A schema change needs a new database: there is no migration path. */
void CDbHelper::OnUpgrade(CContentDbConnection* /*connection*/, int /*oldVersion*/, int /*newVersion*/)
{
}

std::string CDbHelper::GetProviderID()
{
    return TilesModel::Tiles::CONTENT_URI;
}

std::string CDbHelper::GetDataID()
{
    return CContentHelper::GetTableNameFromUri(TilesModel::Tiles::CONTENT_URI);
}

void CDbHelper::createAcceleratorsTable()
{
    using namespace TilesModel::Accelerators;
    namespace Internal = TilesInternalModel::Accelerators;

    CreateTable(__func__, CONTENT_URI,
                {std::string(_ID) + " INTEGER PRIMARY KEY AUTOINCREMENT", std::string(ACCELERATOR_TITLE) + " TEXT",
                 std::string(ACCELERATOR_ICON) + " TEXT", std::string(ACCELERATOR_ICON_UNFOCUSED) + " TEXT",
                 std::string(ACCELERATOR_ENABLED) + " INTEGER DEFAULT 0", std::string(ACCELERATOR_ID) + " TEXT",
                 std::string(Internal::ACCELERATOR_POSITION) + " INTEGER DEFAULT -1",
                 std::string(Internal::ACCELERATOR_APP_PKG_NAME) + " TEXT",
                 std::string(Internal::ACCELERATOR_QEB_WEB_APP_ID) + " TEXT"});
}

void CDbHelper::createSectionsTable()
{
    using namespace TilesModel::Sections;
    using SectionTitleDisplayMode::SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY;

    std::string acceleratorsTable = CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI);
    // The subtitle takes the title's display mode as its default on purpose.
    CreateTable(__func__, CONTENT_URI,
                {std::string(_ID) + " INTEGER PRIMARY KEY AUTOINCREMENT", std::string(SECTION_ID) + "  TEXT",
                 std::string(SECTION_TITLE) + " TEXT", std::string(SECTION_POSITION) + " INTEGER DEFAULT -1",
                 std::string(SECTION_ACCELERATOR_RAW_ID) + " INTEGER References \"" + acceleratorsTable + "\" ( " +
                     TilesModel::BaseColumnsID + " ) ON DELETE CASCADE",
                 std::string(SECTION_TITLE_DISPLAY_MODE) + " TEXT DEFAULT '" +
                     SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY + "'",
                 std::string(SECTION_SUBTITLE_DISPLAY_MODE) + " TEXT DEFAULT '" +
                     SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY + "'"});
}

void CDbHelper::createTilesTable()
{
    using namespace TilesModel::Tiles;

    std::string sectionsTable = CContentHelper::GetTableNameFromUri(TilesModel::Sections::CONTENT_URI);
    std::string text = " TEXT";
    std::string zero = " INTEGER DEFAULT 0";
    CreateTable(__func__, CONTENT_URI,
                {std::string(_ID) + " INTEGER PRIMARY KEY AUTOINCREMENT", TILE_ID + text,
                 std::string(TILE_SECTION_RAW_ID) + " INTEGER References \"" + sectionsTable + "\"( " + _ID +
                     " ) ON DELETE CASCADE",
                 TILE_TYPE + text, TILE_TITLE + text, TILE_SUBTITLE + text, TILE_DISPLAY_FROM + zero,
                 TILE_DISPLAY_UNTIL + zero, TILE_ACTION_PLAY + text, TILE_ACTION_CLICK + text,
                 std::string(TILE_ACTION_TYPE) + " TEXT DEFAULT 'APP_LAUNCH'", TILE_ACTION_DETAILS + text,
                 TILE_IMAGE_URL + text, TILE_SOURCE_ICON + text, TILE_ACTION_PRE_PLAY + text,
                 TILE_ACTION_POST_PLAY + text, TILE_PLAYABLE + zero, TILE_PROGRESS + zero, TILE_NOTIFICATION + zero,
                 TILE_FAVORITE + zero, std::string(TILE_POSITION) + " INTEGER DEFAULT -1", TILE_EXTRA_APP_ID + text,
                 TILE_IMAGE_WIDTH + zero, TILE_IMAGE_HEIGHT + zero,
                 std::string(TILE_IMAGE_RATIO) + " TEXT DEFAULT '" + TileImageRatio::TILE_IMAGE_RATIO_1BY1 + "'",
                 TILE_IMAGE_PATH + text, TILE_SOURCE_ICON_PATH + text});
}

/* "CREATE TABLE IF NOT EXISTS <table> ( <column>, ... )" for the table of
 * `uri`; its lines are written in the name of `func`. */
void CDbHelper::CreateTable(const char* func, const char* uri, const std::vector<std::string>& columns)
{
    if (GetConnection() == nullptr) {
        LOGI_AS(func, "Database is NULL");
        return;
    }

    std::string statement = "CREATE TABLE IF NOT EXISTS " + CContentHelper::GetTableNameFromUri(uri) + " ( ";
    for (size_t i = 0; i < columns.size(); ++i) {
        statement += columns[i] + (i + 1 < columns.size() ? ", " : ")");
    }

    std::string errorMessage;
    if (GetConnection()->ExcuteSQL(statement, errorMessage) != 0) {
        LOGI_AS(func, "SQLite error msg : %s", errorMessage.c_str());
    }
}
