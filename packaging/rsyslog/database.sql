-- What database.conf fills. All text, since PostgreSQL would refuse a line whose stamp is no date.
create table torvi (device text, time text, level text, delay_ms bigint, name text, text text);
create index on torvi (device, time);

-- The fleet at a glance: how often programs ended unexpectedly, and the worst delay, of whom and when.
create view fleet as
select total.*, worst.delay_ms as worst_ms, worst.name as "of", worst.time as "at"
from (select device, count(*) as lines, count(*) filter (where name = 'keepwatch' and level = 'error'
             and text like '%ended unexpectedly%') as ends from torvi group by device) as total
left join lateral (select * from torvi where torvi.device = total.device and delay_ms is not null
                   order by delay_ms desc limit 1) as worst on true
order by ends desc, worst_ms desc nulls last;
