#pragma once

#include <string>
#include <vector>

// `vantrel-service migrate --data DIR --to postgresql://… [--files s3://BUCKET/PREFIX]`: moves an
// installation on SQLite and a folder to PostgreSQL and, when asked, its files to an S3 bucket.
// The folder is locked (no server may run on it meanwhile) and nothing in it changes. Every
// file is copied, read back and compared byte for byte before any record is written; then all
// records go into the empty database in one transaction. A move that stops half way leaves the
// database empty and can simply be run again.
namespace MigrateCommand {

int run(const std::vector<std::string> &arguments);

} // namespace MigrateCommand
