-- The lines of this collector by day, and those of all collectors together.
create database torvi;

-- The day is from the file name, by the collector's clock. Timestamps are text, because that of a device can be invalid.
-- Rows with the same key are merged to one in the background; until then "final" leaves out all but one.
create table torvi.lines (day Date, device String, time String, level String, delay_ms Nullable(Int64),
    name String, text String, key UUID)
    engine = ReplacingMergeTree partition by day order by (device, time, key);

-- The same on every server of the cluster torvi, see server.xml. A query fails if one of the servers is down.
create table torvi.fleetlines as torvi.lines engine = Distributed(torvi, torvi, lines);

-- Per device: the number of unexpected exits, and the longest delay with its name and time.
create view torvi.fleet as
select device, count() as lines,
    countIf(name = 'keepwatch' and level = 'error' and text like '%ended unexpectedly%') as ends,
    max(delay_ms) as worst_ms, argMax(name, delay_ms) as of, argMax(time, delay_ms) as at
from torvi.fleetlines final group by device order by ends desc, worst_ms desc;
