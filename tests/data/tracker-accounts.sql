-- A tracker database with two accounts, tables the reader must skip, and one it must not.
CREATE TABLE settings(key TEXT, value TEXT);
INSERT INTO settings VALUES('theme', 'dark');

CREATE TABLE "12345_activity"(id INTEGER PRIMARY KEY, apiId INTEGER, projectId INTEGER, startTime INTEGER,
    endTime INTEGER, description TEXT, seconds INTEGER, active INTEGER, lastChanged INTEGER);
INSERT INTO "12345_activity" VALUES(7, 9001, 42, 1774000000000, 1774003600000, 'ENG-7 review', 3600, 1, 1774003601000);
INSERT INTO "12345_activity" VALUES(3, 9002, 43, 1774010000000, 1774009000000, 'still running', 0, 0, 1774010000500);

-- Listed by LIKE '%_activity' (case-insensitive, "_" a wildcard) but not an account table.
CREATE TABLE "999_ACTIVITY"(id INTEGER PRIMARY KEY, apiId INTEGER, projectId INTEGER, startTime INTEGER,
    endTime INTEGER, description TEXT, seconds INTEGER, active INTEGER, lastChanged INTEGER);
INSERT INTO "999_ACTIVITY" VALUES(1, 1, 1, 1, 1, 'upper case', 1, 1, 1);
CREATE TABLE "12345xactivity"(id INTEGER PRIMARY KEY, apiId INTEGER, projectId INTEGER, startTime INTEGER,
    endTime INTEGER, description TEXT, seconds INTEGER, active INTEGER, lastChanged INTEGER);
INSERT INTO "12345xactivity" VALUES(1, 1, 1, 1, 1, 'wildcard', 1, 1, 1);

CREATE TABLE "67890_activity"(id INTEGER PRIMARY KEY, apiId INTEGER, projectId INTEGER, startTime INTEGER,
    endTime INTEGER, description TEXT, seconds INTEGER, active INTEGER, lastChanged INTEGER);
INSERT INTO "67890_activity" VALUES(1, -5, 77, 1774020000000, 1774020060000, NULL, 60, 1, 1774020060000);

-- The shortest name that still ends in the suffix.
CREATE TABLE "_activity"(id INTEGER PRIMARY KEY, apiId INTEGER, projectId INTEGER, startTime INTEGER,
    endTime INTEGER, description TEXT, seconds INTEGER, active INTEGER, lastChanged INTEGER);
INSERT INTO "_activity" VALUES(5, 6, 7, 8, 9, 'bare suffix', 10, 11, 12);
