-- What database.conf fills. Stamps are text, since PostgreSQL would refuse a line whose stamp is no date.
create table torvi (device text, time text, level text, delay_ms bigint, name text, text text, key text,
                    arrived date not null default current_date);
-- A line that comes again, from its device or from the files, is known by its key.
create unique index on torvi (device, key);
create index on torvi (device, time);
create index on torvi (device, delay_ms desc);
create index on torvi (arrived);

create function torvi_add(line json) returns void language sql as $$
    insert into torvi (device, time, level, delay_ms, name, text, key)
    select device, time, level, delay_ms, name, text, key from json_populate_record(null::torvi, line)
    on conflict do nothing
$$;

-- For a line of the files: one that a full disk has cut is passed over, and one without a key, which might be there.
create function torvi_refill(line text) returns void language plpgsql as $$
begin
    if line::json ->> 'key' is not null then
        perform torvi_add(line::json);
    end if;
exception when data_exception then null;
end $$;

-- The fleet at a glance: how often programs ended unexpectedly, and the worst delay, of whom and when.
create view fleet as
select total.*, worst.delay_ms as worst_ms, worst.name as "of", worst.time as "at"
from (select device, count(*) as lines, count(*) filter (where name = 'keepwatch' and level = 'error'
             and text like '%ended unexpectedly%') as ends from torvi group by device) as total
left join lateral (select * from torvi where torvi.device = total.device and delay_ms is not null
                   order by delay_ms desc limit 1) as worst on true
order by ends desc, worst_ms desc nulls last;
