/*
 * The tiles database: a content-library helper that switches foreign keys on
 * for every connection and creates the accelerators, sections and tiles tables
 * of a new database.
 */
#ifndef TILVANE_DB_HELPER_H
#define TILVANE_DB_HELPER_H

#include <string>
#include <vector>

#include "ContentHelper.h"

class CDbHelper : public CContentHelper
{
public:
    /* Opens (or creates) `fileName` in `directory` at schema `version`. */
    CDbHelper(std::string directory, std::string fileName, int version);
    virtual ~CDbHelper();

    void OnConfigure(CContentDbConnection* connection) override;
    void OnCreate(CContentDbConnection* connection) override;
    void OnUpgrade(CContentDbConnection* connection, int oldVersion, int newVersion) override;

    /* The provider id and data id under which the tiles content is published. */
    std::string GetProviderID();
    std::string GetDataID();

private:
    void createAcceleratorsTable();
    void createSectionsTable();
    void createTilesTable();
    void CreateTable(const char* func, const char* uri, const std::vector<std::string>& columns);
};

#endif
