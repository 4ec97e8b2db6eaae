#pragma once

#include <vector>

// The records' tables, as the steps that brought them to where they are. Both stores apply the
// same list at start, each in its own dialect, and remember the last step applied (SQLite in its
// user_version, PostgreSQL in a table of its own): a store made by an older service is brought up
// to date, and a newer store than this service knows is refused rather than misread.
namespace SchemaMigrations {

struct Step
{
    int version;
    // A step's SQL for each store; null where the step means nothing to that store.
    const char *sqlite;
    const char *postgres;
};

const std::vector<Step> &steps();

// The version the last step brings the tables to.
int latest();

} // namespace SchemaMigrations
