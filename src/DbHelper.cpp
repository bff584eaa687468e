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

    if (GetConnection() == nullptr) {
        LOGI("Database is NULL");
        return;
    }

    std::string table = CContentHelper::GetTableNameFromUri(CONTENT_URI);
    std::string statement = "CREATE TABLE IF NOT EXISTS ";
    statement += table;
    statement += " ( ";
    statement += std::string(_ID) + " INTEGER PRIMARY KEY AUTOINCREMENT, ";
    statement += std::string(ACCELERATOR_TITLE) + " TEXT, ";
    statement += std::string(ACCELERATOR_ICON) + " TEXT, ";
    statement += std::string(ACCELERATOR_ICON_UNFOCUSED) + " TEXT, ";
    statement += std::string(ACCELERATOR_ENABLED) + " INTEGER DEFAULT 0, ";
    statement += std::string(ACCELERATOR_ID) + " TEXT, ";
    statement += std::string(Internal::ACCELERATOR_POSITION) + " INTEGER DEFAULT -1, ";
    statement += std::string(Internal::ACCELERATOR_APP_PKG_NAME) + " TEXT, ";
    statement += std::string(Internal::ACCELERATOR_QEB_WEB_APP_ID) + " TEXT)";

    std::string errorMessage;
    if (GetConnection()->ExcuteSQL(statement, errorMessage) != 0) {
        LOGI("SQLite error msg : %s", errorMessage.c_str());
    }
}

void CDbHelper::createSectionsTable()
{
    using namespace TilesModel::Sections;
    using SectionTitleDisplayMode::SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY;

    if (GetConnection() == nullptr) {
        LOGI("Database is NULL");
        return;
    }

    std::string table = CContentHelper::GetTableNameFromUri(CONTENT_URI);
    std::string acceleratorsTable = CContentHelper::GetTableNameFromUri(TilesModel::Accelerators::CONTENT_URI);
    std::string statement = "CREATE TABLE IF NOT EXISTS ";
    statement += table;
    statement += " ( ";
    statement += std::string(_ID) + " INTEGER PRIMARY KEY AUTOINCREMENT, ";
    statement += std::string(SECTION_ID) + "  TEXT, ";
    statement += std::string(SECTION_TITLE) + " TEXT, ";
    statement += std::string(SECTION_POSITION) + " INTEGER DEFAULT -1, ";
    statement += std::string(SECTION_ACCELERATOR_RAW_ID) + " INTEGER References \"" + acceleratorsTable + "\" ( " +
                 TilesModel::BaseColumnsID + " ) ON DELETE CASCADE, ";
    statement += std::string(SECTION_TITLE_DISPLAY_MODE) + " TEXT DEFAULT '" +
                 SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY + "', ";
    // The subtitle takes the title's display mode as its default on purpose.
    statement += std::string(SECTION_SUBTITLE_DISPLAY_MODE) + " TEXT DEFAULT '" +
                 SECTION_TITLE_DISPLAY_MODE_HIGHLIGHTED_ONLY + "')";

    std::string errorMessage;
    if (GetConnection()->ExcuteSQL(statement, errorMessage) != 0) {
        LOGI("SQLite error msg : %s", errorMessage.c_str());
    }
}

void CDbHelper::createTilesTable()
{
    using namespace TilesModel::Tiles;

    if (GetConnection() == nullptr) {
        LOGI("Database is NULL");
        return;
    }

    std::string table = CContentHelper::GetTableNameFromUri(CONTENT_URI);
    std::string sectionsTable = CContentHelper::GetTableNameFromUri(TilesModel::Sections::CONTENT_URI);
    std::string statement = "CREATE TABLE IF NOT EXISTS ";
    statement += table;
    statement += " ( ";
    statement += std::string(_ID) + " INTEGER PRIMARY KEY AUTOINCREMENT, ";
    statement += std::string(TILE_ID) + " TEXT, ";
    statement += std::string(TILE_SECTION_RAW_ID) + " INTEGER References \"" + sectionsTable + "\"( " + _ID +
                 " ) ON DELETE CASCADE, ";
    statement += std::string(TILE_TYPE) + " TEXT, ";
    statement += std::string(TILE_TITLE) + " TEXT, ";
    statement += std::string(TILE_SUBTITLE) + " TEXT, ";
    statement += std::string(TILE_DISPLAY_FROM) + " INTEGER DEFAULT 0, ";
    statement += std::string(TILE_DISPLAY_UNTIL) + " INTEGER DEFAULT 0, ";
    statement += std::string(TILE_ACTION_PLAY) + " TEXT, ";
    statement += std::string(TILE_ACTION_CLICK) + " TEXT, ";
    statement += std::string(TILE_ACTION_TYPE) + " TEXT DEFAULT 'APP_LAUNCH', ";
    statement += std::string(TILE_ACTION_DETAILS) + " TEXT, ";
    statement += std::string(TILE_IMAGE_URL) + " TEXT, ";
    statement += std::string(TILE_SOURCE_ICON) + " TEXT, ";
    statement += std::string(TILE_ACTION_PRE_PLAY) + " TEXT, ";
    statement += std::string(TILE_ACTION_POST_PLAY) + " TEXT, ";
    statement += std::string(TILE_PLAYABLE) + " INTEGER DEFAULT 0, ";
    statement += std::string(TILE_PROGRESS) + " INTEGER DEFAULT 0, ";
    statement += std::string(TILE_NOTIFICATION) + " INTEGER DEFAULT 0, ";
    statement += std::string(TILE_FAVORITE) + " INTEGER DEFAULT 0, ";
    statement += std::string(TILE_POSITION) + " INTEGER DEFAULT -1, ";
    statement += std::string(TILE_EXTRA_APP_ID) + " TEXT, ";
    statement += std::string(TILE_IMAGE_WIDTH) + " INTEGER DEFAULT 0, ";
    statement += std::string(TILE_IMAGE_HEIGHT) + " INTEGER DEFAULT 0, ";
    statement += std::string(TILE_IMAGE_RATIO) + " TEXT DEFAULT '" + TileImageRatio::TILE_IMAGE_RATIO_1BY1 + "', ";
    statement += std::string(TILE_IMAGE_PATH) + " TEXT, ";
    statement += std::string(TILE_SOURCE_ICON_PATH) + " TEXT)";

    std::string errorMessage;
    if (GetConnection()->ExcuteSQL(statement, errorMessage) != 0) {
        LOGI("SQLite error msg : %s", errorMessage.c_str());
    }
}

